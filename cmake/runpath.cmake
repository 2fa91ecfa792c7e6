# How installed programs and libraries find libsqz, libkexcli and each other.

# Where the loader looks anyway, nothing has to be said; and packages must say nothing. This is decided when the build
# is configured, by the prefix that it has then: what a build for /usr installs elsewhere (cmake --install with
# another --prefix) has no run path, and LD_LIBRARY_PATH must name its libraries. `./dev install` takes another build.
if(CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
  set(VORN_LOADER_LOOKS_THERE ON)
else()
  set(VORN_LOADER_LOOKS_THERE OFF)
endif()

# vorn_install_runpath(TARGET FOLDER): the target, installed into the folder, looks for libraries in the one of the
# libraries. The way is relative to the target's own place, so that the tree can be moved; only where one of
# the two is absolute and the other one isn't there is no such way.
function(vorn_install_runpath TARGET FOLDER)
  if(VORN_LOADER_LOOKS_THERE)
    return()
  endif()
  cmake_path(IS_ABSOLUTE FOLDER FOLDER_ABSOLUTE)
  cmake_path(IS_ABSOLUTE CMAKE_INSTALL_LIBDIR LIBDIR_ABSOLUTE)
  if(FOLDER_ABSOLUTE STREQUAL LIBDIR_ABSOLUTE)
    file(RELATIVE_PATH WAY /${FOLDER} /${CMAKE_INSTALL_LIBDIR})
    string(REGEX REPLACE "/$" "" WAY "$ORIGIN/${WAY}")
  else()
    set(WAY ${CMAKE_INSTALL_FULL_LIBDIR})
  endif()
  set_target_properties(${TARGET} PROPERTIES INSTALL_RPATH "${WAY}")
endfunction()
