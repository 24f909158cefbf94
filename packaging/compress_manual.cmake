# Run by cpack on the files of each package before it packs them: compresses the man page, as Debian
# policy asks, without a time stamp.
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_DIRECTORY}/vnagent.1)
foreach(page IN LISTS pages)
  execute_process(COMMAND gzip -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
