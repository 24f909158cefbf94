# Runs the training program: cmake -DPROGRAM=... -DPROFILE=... -DNAMES=... -P train.cmake
#
# PROFILE is the folder in which it writes the profile, a file for each of the sources NAMES.
file(REMOVE_RECURSE ${PROFILE})  # a run would add to an existing profile
execute_process(COMMAND ${PROGRAM} COMMAND_ERROR_IS_FATAL ANY)
foreach(name IN LISTS NAMES)
  if(NOT EXISTS ${PROFILE}/${name}.gcda)
    message(FATAL_ERROR "${PROGRAM} has written no profile to ${PROFILE}/${name}.gcda")
  endif()
endforeach()
