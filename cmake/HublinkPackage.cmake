# The Debian packages `hublink`, `hublink-bridge`, `hublink-dev` and `python3-hublink`, made by cpack of
# the components.
option(HUBLINK_DEBIAN "Install what Debian wants of a package" OFF)

if(HUBLINK_DEBIAN)
  foreach(component_and_package runtime:hublink bridge:hublink-bridge devel:hublink-dev
                                python:python3-hublink)
    string(REPLACE ":" ";" component_and_package ${component_and_package})
    list(GET component_and_package 0 component)
    list(GET component_and_package 1 package)
    set(directory ${CMAKE_INSTALL_DATADIR}/doc/${package})
    install(FILES packaging/copyright DESTINATION ${directory} COMPONENT ${component})
    hublink_install_gz(${CMAKE_SOURCE_DIR}/packaging/changelog ${component} ${directory})
  endforeach()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_NAME hublink)
set(CPACK_PACKAGE_CONTACT "Hublink developers <developers@hublink.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime bridge devel python)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
                                                GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME hublink)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "hub that brokers services between plugin processes
Development tools that run as processes of their own register services with
the hub and ask it for those of others. The hub introduces both sides, starts
providers on demand and relays what they send each other over TCP.
.
This package holds the hub, the command that works it, and a checker for the
description files of services.")

set(CPACK_DEBIAN_BRIDGE_PACKAGE_NAME hublink-bridge)
set(CPACK_DEBIAN_BRIDGE_PACKAGE_SECTION net)
set(CPACK_DEBIAN_BRIDGE_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_BRIDGE_PACKAGE_DEPENDS "hublink (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_BRIDGE_PACKAGE_SUGGESTS nats-server)
set(CPACK_COMPONENT_BRIDGE_DESCRIPTION "joins the hubs of several machines through NATS
A bridge beside each hub lets plugins use services of other machines as if
they were local: it exports what it is told to, and carries links through a
NATS server or cluster, with TLS, accounts and leaf nodes.
.
This package holds the bridge, a unit for the user's service manager and an
example configuration.")

set(CPACK_DEBIAN_DEVEL_PACKAGE_NAME hublink-dev)
set(CPACK_DEBIAN_DEVEL_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVEL_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEVEL_PACKAGE_DEPENDS "hublink (= ${PROJECT_VERSION}), libstdc++-12-dev | libstdc++-dev")
set(CPACK_DEBIAN_DEVEL_PACKAGE_SUGGESTS "cmake, pkg-config")
set(CPACK_COMPONENT_DEVEL_DESCRIPTION "library and interface compiler for plugins of a hub
The plugin side of Hublink for programs in C++20: static libraries, headers,
support for CMake and pkg-config, and examples.
.
stpc compiles the description of an interface to a class for each of its
sides.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-hublink)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.9)")
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS hublink)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS hublink-dev)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/packaging/python3-hublink/postinst
    ${CMAKE_SOURCE_DIR}/packaging/python3-hublink/prerm)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "plugins of a hub in Python
The plugin side of Hublink for Python programs, on asyncio or blocking: find
or start the hub, provide services and ask for those of others.
.
stpc, in hublink-dev, compiles interfaces for it.")

include(CPack)
