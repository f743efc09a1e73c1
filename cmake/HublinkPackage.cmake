# The Debian packages `hublink` and `hublink-dev`, made by cpack of the two components.
option(HUBLINK_DEBIAN "Install what Debian wants of a package" OFF)

if(HUBLINK_DEBIAN)
  foreach(component_and_package runtime:hublink devel:hublink-dev)
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
set(CPACK_COMPONENTS_ALL runtime devel)
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

include(CPack)
