# The Debian packages that `make packages` builds, one for each component of install.cmake. Included
# where OPENSTACKSM_PACKAGES is set, as in the preset `package`: it configures for the prefix /usr,
# without tests.
include(${CMAKE_CURRENT_LIST_DIR}/package_tools.cmake)

set(library_package libopenstacksm${soversion})
set(same_version "${library_package} (= ${PROJECT_VERSION})")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME openstacksm)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Each package has a description of its own; its first line is the summary.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "OpenStackSm maintainers <maintainers@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_OUTPUT_FILE_PREFIX packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/package_tools.cmake
                            ${CMAKE_CURRENT_LIST_DIR}/compress_manual.cmake)
set(CPACK_COMPONENTS_ALL library development agent)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
  "state machines from an OpenStack cloud to a network switch
The shared library of reactive state machines that turn the state of an
OpenStack cloud into what a network switch must provide: VLANs, VLAN-to-VNI
mappings and native VLANs for each host and switch port, and the sync state
of each region.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libopenstacksm-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${same_version}")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "state machines from cloud to switch: development files
What is needed to embed the library in a host agent: headers, the CMake
package OpenStackSm, the pkg-config file openstacksm, pages that tell how, and
an example host agent.")

set(CPACK_DEBIAN_AGENT_PACKAGE_NAME vnagent)
set(CPACK_DEBIAN_AGENT_PACKAGE_SECTION net)
set(CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS
  "${same_version}, init-system-helpers, systemd | systemd-standalone-sysusers")
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/service/postinst ${CMAKE_CURRENT_LIST_DIR}/service/prerm
  ${CMAKE_CURRENT_LIST_DIR}/service/postrm)
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_AGENT_DESCRIPTION
  "host agent that shows what a cloud asks of a network switch
vnagent mirrors a document of an OpenStack cloud into live entities, plays
changes on it, and prints which VLANs and VNIs each host and switch
interface needs, who needs them, and how the synchronisation of each region
stands. As a service it keeps the cloud up to date over HTTP, on a Unix socket
or TCP, and its state on the disk.")

# Debian policy: each package brings its copyright file.
foreach(component library development agent)
  string(TOUPPER ${component} upper)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright COMPONENT ${component}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
endforeach()

include(CPack)
