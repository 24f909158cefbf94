# What `cmake --install` installs.
#
#   include/OpenStackSm/    the headers, under the paths that #include names; the only folder that is
#                           added to an embedder's include path
#   lib/                    libOpenStackSm.so, its CMake package and its pkg-config file
#   share/doc/OpenStackSm/  the licence, the pages for embedders, the example host agent
#   share/doc/vnagent/      the page about the cloud document
#   bin/vnagent             with its man page and the completions of three shells
#   lib/systemd/system/     the unit of the live agent; lib/sysusers.d/ has its user
#
# Components: `library` has what a program needs at run time, `development` what is needed to build
# one, `agent` the program.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(OPENSTACKSM_ZSH_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/zsh/site-functions
    CACHE STRING "The folder of zsh's completions, relative to the prefix")
set(headers_dir ${CMAKE_INSTALL_INCLUDEDIR}/OpenStackSm)
set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/OpenStackSm)

# The library. While the major version is 0 each minor version may break the binary interface, so
# both contain it; from 1 on only the major version.
set(soversion ${PROJECT_VERSION_MAJOR})
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(soversion 0.${PROJECT_VERSION_MINOR})
endif()
set_target_properties(OpenStackSm PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${soversion})
target_compile_features(OpenStackSm PUBLIC cxx_std_20)
add_library(OpenStackSm::OpenStackSm ALIAS OpenStackSm)
target_include_directories(OpenStackSm INTERFACE $<INSTALL_INTERFACE:${headers_dir}>)
install(TARGETS OpenStackSm EXPORT OpenStackSm
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)

# The public headers, and those of detail/ that they include. tests/packaging/headers.py checks this
# list.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/framework ${PROJECT_SOURCE_DIR}/model
                  ${PROJECT_SOURCE_DIR}/OpenStackSm
  DESTINATION ${headers_dir} COMPONENT development
  FILES_MATCHING PATTERN "*.h"
  PATTERN "framework/detail/Pool.h" EXCLUDE
  PATTERN "framework/detail/SystemMemory.h" EXCLUDE
  PATTERN "OpenStackSm/detail/Given.h" EXCLUDE
  PATTERN "OpenStackSm/detail/Referrer.h" EXCLUDE
  PATTERN "OpenStackSm/detail/Toggle.h" EXCLUDE)

# What finds the library: find_package(OpenStackSm), pkg-config openstacksm.
install(EXPORT OpenStackSm NAMESPACE OpenStackSm:: FILE OpenStackSmTargets.cmake
  DESTINATION ${cmake_dir} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/OpenStackSmConfig.cmake.in
  ${PROJECT_BINARY_DIR}/packaging/OpenStackSmConfig.cmake INSTALL_DESTINATION ${cmake_dir})
set(compatibility SameMajorVersion)
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(compatibility SameMinorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/OpenStackSmConfigVersion.cmake
  COMPATIBILITY ${compatibility})
install(FILES ${PROJECT_BINARY_DIR}/packaging/OpenStackSmConfig.cmake
              ${PROJECT_BINARY_DIR}/packaging/OpenStackSmConfigVersion.cmake
  DESTINATION ${cmake_dir} COMPONENT development)
file(RELATIVE_PATH pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_to_prefix ${pc_to_prefix})
configure_file(${CMAKE_CURRENT_LIST_DIR}/openstacksm.pc.in
  ${PROJECT_BINARY_DIR}/packaging/openstacksm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/openstacksm.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# The pages, and the programs that they quote; the example host agent is a project of its own.
install(FILES ${PROJECT_SOURCE_DIR}/docs/embedding.md ${PROJECT_SOURCE_DIR}/docs/architecture.md
              ${PROJECT_SOURCE_DIR}/docs/architecture.svg ${PROJECT_SOURCE_DIR}/docs/architecture.dot
              ${PROJECT_SOURCE_DIR}/docs/framework.md ${PROJECT_SOURCE_DIR}/docs/output-model.md
              ${PROJECT_SOURCE_DIR}/docs/sync-protocol.md ${PROJECT_SOURCE_DIR}/docs/terms.md
              ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
if(NOT OPENSTACKSM_PACKAGES)  # they have a copyright file each
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR}
    COMPONENT development)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/examples ${PROJECT_SOURCE_DIR}/docs/sync
                  ${PROJECT_SOURCE_DIR}/docs/output
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/examples/embed/CMakeLists.txt
              ${PROJECT_SOURCE_DIR}/examples/embed/main.cpp
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/embed COMPONENT development)

# The program. It finds the library relative to its own path, so that the prefix can be moved.
if(OPENSTACKSM_AGENT)
  file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(vnagent PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  install(TARGETS vnagent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT agent)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/vnagent.1.in ${PROJECT_BINARY_DIR}/packaging/vnagent.1
    @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/vnagent.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT agent)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/cloud-document.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/vnagent COMPONENT agent)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/completions/vnagent.bash RENAME vnagent
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT agent)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/completions/_vnagent
    DESTINATION ${OPENSTACKSM_ZSH_COMPLETIONS} COMPONENT agent)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/completions/vnagent.fish
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT agent)
  # Not in a folder of the architecture: systemd reads these.
  configure_file(${CMAKE_CURRENT_LIST_DIR}/service/vnagent.service.in
    ${PROJECT_BINARY_DIR}/packaging/vnagent.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/vnagent.service
    DESTINATION lib/systemd/system COMPONENT agent)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/service/vnagent.sysusers RENAME vnagent.conf
    DESTINATION lib/sysusers.d COMPONENT agent)
endif()
