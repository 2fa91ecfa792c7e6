# cpack runs this when the files of the packages stand in a folder of their own: Debian wants its man pages
# compressed. A page that names another one is followed to the compressed file.

file(GLOB_RECURSE PAGES ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.[1-9])
if(PAGES)
  execute_process(COMMAND gzip -9n ${PAGES} COMMAND_ERROR_IS_FATAL ANY)
endif()
