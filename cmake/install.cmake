# What is installed beside the libraries and the tools, which stand with their targets: the headers, what
# pkg-config and find_package read, and the documents. Three components: `runtime` is what a program needs to
# run, `development` what it needs to be built, `tools` are the programs.

include(CMakePackageConfigHelpers)

install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h")

# All that has to be built for it: without the tests, the examples and the benchmarks.
add_custom_target(installed DEPENDS vornthr sqz kexcli clhsim fdlc sdlc)
if(TARGET reference)
  add_dependencies(installed reference)
endif()

# pkg-config. In a tree that can be moved the prefix is where the file itself is. Where the loader looks
# anyway it is plain, because pkg-config leaves out what the compiler knows only if it is spelt that way.
set(PC_FOLDER ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
cmake_path(IS_ABSOLUTE PC_FOLDER PC_ABSOLUTE)
if(PC_ABSOLUTE OR VORN_LOADER_LOOKS_THERE)
  set(PC_PREFIX ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH PC_UP /${PC_FOLDER} /)
  string(REGEX REPLACE "/$" "" PC_UP ${PC_UP})
  set(PC_PREFIX "\${pcfiledir}/${PC_UP}")
endif()
foreach(NAME LIBDIR INCLUDEDIR)
  set(PC_${NAME} "\${prefix}")
  cmake_path(APPEND PC_${NAME} ${CMAKE_INSTALL_${NAME}})
endforeach()
configure_file(cmake/vornthr.pc.in ${PROJECT_BINARY_DIR}/cmake/vornthr.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cmake/vornthr.pc DESTINATION ${PC_FOLDER} COMPONENT development)

# find_package.
set(CONFIG_FOLDER ${CMAKE_INSTALL_LIBDIR}/cmake/vornthr)
configure_package_config_file(cmake/vornthrConfig.cmake.in ${PROJECT_BINARY_DIR}/cmake/vornthrConfig.cmake
  INSTALL_DESTINATION ${CONFIG_FOLDER} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/vornthrConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake/vornthrConfig.cmake
  ${PROJECT_BINARY_DIR}/cmake/vornthrConfigVersion.cmake
  DESTINATION ${CONFIG_FOLDER} COMPONENT development)
install(EXPORT vornthrTargets NAMESPACE vornthr:: DESTINATION ${CONFIG_FOLDER} COMPONENT development)

# The documents lie as in this tree, so that the links between them lead somewhere: those of the runtime to what it
# has itself, the others also to those of the runtime, which they come with.
set(DOC_FOLDER ${CMAKE_INSTALL_DATAROOTDIR}/doc/libvornthr)
file(GLOB DOCUMENTS CONFIGURE_DEPENDS docs/*.md)
set(RUNTIME_DOCUMENTS ${DOCUMENTS})
list(FILTER RUNTIME_DOCUMENTS INCLUDE REGEX "/(environment|errors)[.]md$")
list(REMOVE_ITEM DOCUMENTS ${RUNTIME_DOCUMENTS})
install(FILES cmake/debian/copyright DESTINATION ${DOC_FOLDER} COMPONENT runtime)
install(FILES ${RUNTIME_DOCUMENTS} DESTINATION ${DOC_FOLDER}/docs COMPONENT runtime)
install(FILES providers/kexcli/FORMAT.md DESTINATION ${DOC_FOLDER}/providers/kexcli COMPONENT runtime)
install(FILES README.md DESTINATION ${DOC_FOLDER} COMPONENT development)
install(DIRECTORY abi DESTINATION ${DOC_FOLDER} COMPONENT development
  FILES_MATCHING PATTERN "*.md" PATTERN "*.list")
install(FILES ${DOCUMENTS} DESTINATION ${DOC_FOLDER}/docs COMPONENT development)
install(DIRECTORY providers DESTINATION ${DOC_FOLDER} COMPONENT development
  FILES_MATCHING PATTERN "*.md" PATTERN kexcli/FORMAT.md EXCLUDE)
install(DIRECTORY examples DESTINATION ${DOC_FOLDER} COMPONENT development
  FILES_MATCHING PATTERN "*.c" PATTERN "*.[fs]dl")
install(FILES tools/clhsim/PROTOCOL.md DESTINATION ${DOC_FOLDER}/tools/clhsim COMPONENT tools)
install(FILES tools/fdlc/README.md DESTINATION ${DOC_FOLDER}/tools/fdlc COMPONENT tools)
install(FILES tools/sdlc/README.md DESTINATION ${DOC_FOLDER}/tools/sdlc COMPONENT tools)
