# cpack reads this before it makes packages: which packages of the system the built libraries and tools need, and
# what the packages of other programs have to say if they need these libraries.

# The prefix is in what the build has configured (run paths, vornthr.pc), and cpack puts everything below /usr.
if(NOT CPACK_VORN_PREFIX MATCHES "^/usr/?$")
  message(FATAL_ERROR "packages are made out of a build for /usr, and this one is for ${CPACK_VORN_PREFIX}: run "
    "./dev package, or configure with -DCMAKE_INSTALL_PREFIX=/usr in a folder of its own")
endif()

# What a package says of its version stands in the first entry of its changelog, whose date and text somebody has to
# write: a version without one isn't packed.
file(STRINGS ${CPACK_VORN_CONTROL}/changelog ENTRY LIMIT_COUNT 1)
if(NOT ENTRY MATCHES "^[^ ]+ [(]([^)]*)[)]" OR NOT CMAKE_MATCH_1 STREQUAL CPACK_PACKAGE_VERSION)
  message(FATAL_ERROR "cmake/debian/changelog.in has no entry for ${CPACK_PACKAGE_VERSION}: write one, at its top")
endif()

find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
set(LIB ${CPACK_VORN_LIBRARIES}/lib)
set(BIN ${CPACK_VORN_PROGRAMS})

# Appends to the dependencies of a package those of the files. cpack could ask dpkg-shlibdeps itself, but it then
# adds scripts that call ldconfig beside the trigger.
function(add_needed_packages PACKAGE)
  set(FOLDER ${CPACK_PACKAGE_DIRECTORY}/shlibdeps)
  file(WRITE ${FOLDER}/debian/control "") # it wants to see one
  execute_process(COMMAND ${DPKG_SHLIBDEPS} -O --ignore-missing-info -l${CPACK_VORN_LIBRARIES} ${ARGN}
    WORKING_DIRECTORY ${FOLDER} OUTPUT_VARIABLE OUTPUT ERROR_VARIABLE ERRORS RESULT_VARIABLE RESULT
    OUTPUT_STRIP_TRAILING_WHITESPACE)
  file(REMOVE_RECURSE ${FOLDER})
  if(NOT RESULT EQUAL 0)
    message(FATAL_ERROR "dpkg-shlibdeps: ${ERRORS}")
  endif()
  string(REGEX REPLACE "^shlibs:Depends=" "" NEEDED "${OUTPUT}")
  list(APPEND NEEDED ${CPACK_DEBIAN_${PACKAGE}_PACKAGE_DEPENDS})
  list(JOIN NEEDED ", " NEEDED)
  set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_DEPENDS ${NEEDED} PARENT_SCOPE)
endfunction()

if(DPKG_SHLIBDEPS)
  add_needed_packages(RUNTIME ${LIB}vornthr.so ${LIB}sqz.so ${LIB}kexcli.so)
  add_needed_packages(TOOLS ${BIN}/clhsim ${BIN}/fdlc ${BIN}/sdlc)
else()
  message(WARNING "dpkg-shlibdeps isn't there (package dpkg-dev): the packages won't name the libraries of the "
    "system that they need")
endif()

# The symbols file of the runtime package: for each name that a library shows, the version that has it. Since the
# names of the libraries carry no number, dpkg-shlibdeps can tell nothing about them without it.
set(SYMBOLS "")
foreach(NAME libvornthr libsqz.so libkexcli.so)
  string(REGEX REPLACE "^lib|[.]so$" "" STEM ${NAME})
  execute_process(COMMAND ${CPACK_VORN_NM} -D --defined-only --with-symbol-versions ${LIB}${STEM}.so
    OUTPUT_VARIABLE TABLE COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX REPLACE "[0-9a-f]+ A [^\n]*\n" "" TABLE "${TABLE}") # the version nodes themselves
  string(REGEX REPLACE "[0-9a-f]+ [A-Za-z] ([^@\n]+)(@*)([^@\n]*)" " \\1@\\3" TABLE "${TABLE}")
  string(REGEX REPLACE "@\n" "@Base\n" TABLE "${TABLE}")
  string(REPLACE "\n" " ${CPACK_PACKAGE_VERSION}\n" TABLE "${TABLE}")
  string(APPEND SYMBOLS "${NAME} libvornthr #MINVER#\n${TABLE}")
endforeach()
file(WRITE ${CPACK_VORN_CONTROL}/symbols "${SYMBOLS}")
list(APPEND CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CPACK_VORN_CONTROL}/symbols)
