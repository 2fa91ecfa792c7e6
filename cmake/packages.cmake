# The Debian packages: one for each component. cpack makes them out of a build that is configured for /usr
# (`./dev package`).

set(VORN_MAINTAINER "libvornthr developers <libvornthr@example.org>" CACHE STRING
  "Whom the packages name as their maintainer")

# Each package wants a folder of its own name with its copyright in it. That of the runtime is the one that
# cmake --install fills; those of the other two packages, which need the runtime, are links to it.
# The components debian_* are for the packages only: cmake --install leaves them out.
set(DEBIAN_FOLDER ${PROJECT_BINARY_DIR}/cmake/debian)
file(MAKE_DIRECTORY ${DEBIAN_FOLDER})
configure_file(cmake/debian/changelog.in ${DEBIAN_FOLDER}/changelog @ONLY)
install(FILES ${DEBIAN_FOLDER}/changelog DESTINATION ${DOC_FOLDER} # compress.cmake makes changelog.gz of it
  COMPONENT debian_runtime EXCLUDE_FROM_ALL)
foreach(PART development=dev tools=tools)
  string(REPLACE "=" ";" PART ${PART})
  list(GET PART 0 COMPONENT)
  list(GET PART 1 ENDING)
  file(CREATE_LINK libvornthr ${DEBIAN_FOLDER}/libvornthr-${ENDING} SYMBOLIC)
  install(FILES ${DEBIAN_FOLDER}/libvornthr-${ENDING} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc
    COMPONENT debian_${COMPONENT} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libvornthr)
set(CPACK_PACKAGE_CONTACT ${VORN_MAINTAINER})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development tools debian_runtime debian_development debian_tools)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvornthr)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "client library of a transaction-processing monitor
Programs with any number of threads call the services of a monitor through it,
over one TCP connection: calls and replies, conversations, events,
transactions, reliable queues, a shared key store and a message service.
.
This package holds the library, and the two that it needs for compression and
for enciphered sessions.")
# Only the loader's cache has to hear of the libraries; no script runs.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvornthr-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libvornthr (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "libvornthr-tools")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "client library of a transaction-processing monitor: development files
Programs with any number of threads call the services of a monitor through
libvornthr, over one TCP connection.
.
This package holds the headers for C and C++, what pkg-config and CMake need
to find the library, the documents and the examples.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME libvornthr-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libvornthr (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "client library of a transaction-processing monitor: tools
Programs with any number of threads call the services of a monitor through
libvornthr, over one TCP connection.
.
This package holds the compilers of field tables (fdlc) and of struct
definitions (sdlc), and clhsim, a stand-in for the monitor to test
applications with.")

# The rest needs the built files.
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/dependencies.cmake)
set(CPACK_VORN_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_VORN_NM ${CMAKE_NM})
set(CPACK_VORN_CONTROL ${DEBIAN_FOLDER})
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/compress.cmake)
set(CPACK_VORN_LIBRARIES ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_VORN_PROGRAMS ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})

include(CPack)
foreach(COMPONENT runtime development tools)
  cpack_add_component_group(${COMPONENT})
  cpack_add_component(${COMPONENT} GROUP ${COMPONENT})
  cpack_add_component(debian_${COMPONENT} GROUP ${COMPONENT})
endforeach()
