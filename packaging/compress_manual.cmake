# Run by cpack on each package's files before it packs them: compresses the man pages, as Debian
# wants them, and without a time stamp.
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_DIRECTORY}/vnagent.1)
foreach(page IN LISTS pages)
  execute_process(COMMAND gzip -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
