# Runs the training program: cmake -DPROGRAM=... -DCOUNTS=... -DNAMES=... -P train.cmake
#
# COUNTS is the folder that it is to leave its counts in, a file for each of the sources NAMES.
file(REMOVE_RECURSE ${COUNTS})  # a run would add to the counts that are there
execute_process(COMMAND ${PROGRAM} COMMAND_ERROR_IS_FATAL ANY)
foreach(name IN LISTS NAMES)
  if(NOT EXISTS ${COUNTS}/${name}.gcda)
    message(FATAL_ERROR "${PROGRAM} has left no counts in ${COUNTS}/${name}.gcda")
  endif()
endforeach()
