# Keeps the paths of the source tree and of the build out of the binaries: builds of the same source in
# different folders give the same bytes. Unoptimised builds keep full paths, for debuggers.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
add_compile_options(
  $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=>
  $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_BINARY_DIR}=build>)
