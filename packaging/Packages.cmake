# The Debian packages that `make package` builds: one per component.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarnflow)
set(CPACK_PACKAGE_CONTACT "The tarnflow developers <tarnflow@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)  # /etc is outside of the prefix
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library dev agent)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

get_target_property(soversion tarnipfix SOVERSION)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libtarnipfix${soversion})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/deb/triggers)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "IPFIX export for flow-tracking agents
Turns an agent's configuration and status into IPFIX messages (RFC 7011):
templates, options templates and options data, for many collectors at a time.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtarnipfix-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS library)
set(CPACK_COMPONENT_DEV_DESCRIPTION "IPFIX export for flow-tracking agents, for development
Headers, the services that the library needs of a Linux host (static), and the
files of CMake and pkg-config.")

set(CPACK_DEBIAN_AGENT_PACKAGE_NAME tarnflow)
set(CPACK_DEBIAN_AGENT_PACKAGE_SECTION net)
set(CPACK_COMPONENT_AGENT_DEPENDS library)
set(CPACK_DEBIAN_AGENT_PACKAGE_PREDEPENDS "init-system-helpers (>= 1.54~)")
set(CPACK_COMPONENT_AGENT_DESCRIPTION "exports what a host knows about its traffic by IPFIX
tarnflowd tracks the flows of this host's interfaces and namespaces (VRFs), or
takes them from devices, and sends them to collectors with the names of
interfaces and VRFs. tarnflow shows what was sent and what arrives, and serves
metrics.")
set(deb ${CMAKE_CURRENT_SOURCE_DIR}/deb)
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA
    ${deb}/conffiles ${deb}/postinst ${deb}/prerm ${deb}/postrm)

include(CPack)
