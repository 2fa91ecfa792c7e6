# cpack runs this when the files of the packages stand in a folder of their own: Debian wants its man pages and
# changelogs compressed. A page that names another one is followed to the compressed file.

file(GLOB_RECURSE FILES "${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.[1-9]"
  "${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog")
if(FILES)
  execute_process(COMMAND gzip -9n ${FILES} COMMAND_ERROR_IS_FATAL ANY)
endif()
