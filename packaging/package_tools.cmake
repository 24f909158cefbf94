# Stops unless the programs are there that packing needs. Included when the preset `package` is
# configured, and again by cpack before it packs: CPack itself goes on without dpkg-shlibdeps and
# makes packages without dependencies, and misses `file` only after all other work.
foreach(tool_and_package dpkg-shlibdeps=dpkg-dev dpkg-deb=dpkg file=file gzip=gzip)
  string(REGEX MATCH "^([^=]+)=(.+)$" matched ${tool_and_package})
  find_program(tool ${CMAKE_MATCH_1} NO_CACHE)
  if(NOT tool)
    message(FATAL_ERROR "Debian packages cannot be made: the program ${CMAKE_MATCH_1} is missing. "
      "`make packages` installs what is needed; by hand: apt-get install ${CMAKE_MATCH_2}")
  endif()
  unset(tool)
endforeach()
