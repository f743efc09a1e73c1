# What an installation holds, in four components: `runtime`, the hub and its tools, `bridge`, which
# joins hubs, `devel`, what plugins are built with, and `python`, the library for those in Python. No
# installed file knows where it was built or will lie, so the tree can be moved as a whole; but for
# the bridge's unit, which is for a system's own installation.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(HUBLINK_ZSH_COMPLETION_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions
    CACHE STRING "Where zsh looks for completions, below the prefix")

# --- The hub and its tools ---

# A hub finds its description files and its providers beside its executable, wherever it is called
# from; plugins look for it here too, from `bin`.
set(program_dir lib/hublink)
set(commands hublink hublink-services hublinkctl)
install(TARGETS ${commands} echo_provider DESTINATION ${program_dir} COMPONENT runtime)
install(FILES packaging/echo.kvs DESTINATION ${program_dir}/defaults/services COMPONENT runtime)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
file(RELATIVE_PATH from_bin /${CMAKE_INSTALL_BINDIR} /${program_dir})
function(hublink_link_command component command)
  set(link ${CMAKE_BINARY_DIR}/installed_links/${command})
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/installed_links)
  file(CREATE_LINK ${from_bin}/${command} ${link} SYMBOLIC)
  install(FILES ${link} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${component})
endfunction()
foreach(command IN LISTS commands)
  hublink_link_command(runtime ${command})
endforeach()

# --- The bridge between hubs ---

install(TARGETS hublink-bridge DESTINATION ${program_dir} COMPONENT bridge)
hublink_link_command(bridge hublink-bridge)
install(FILES packaging/hublink-bridge/hublink-bridge@.service DESTINATION lib/systemd/user
        COMPONENT bridge)
install(FILES packaging/hublink-bridge/bridge.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/hublink-bridge/examples COMPONENT bridge)

# --- What plugins are built with ---

install(TARGETS stpc EXPORT HublinkTargets DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT devel)

# From the top to the bottom, which is the order for the linker.
set(libraries hublink_plugin hublink_router active_hub stp_transport libcxxutil indgen platform)
set(linker_arguments)
foreach(library IN LISTS libraries)
  # In a directory that is shared with others, the names of the rooms alone would say too little.
  string(REGEX REPLACE "^(hublink_|lib)" "" subject ${library})
  set(output hublink_${subject})
  set_target_properties(${library} PROPERTIES OUTPUT_NAME ${output})
  string(APPEND linker_arguments " -l${output}")
endforeach()
set_target_properties(hublink_plugin PROPERTIES EXPORT_NAME plugin)
install(TARGETS ${libraries} EXPORT HublinkTargets DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT devel INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hublink)

install(CODE "set(source_dir \"${CMAKE_SOURCE_DIR}\")
set(include_dir \"${CMAKE_INSTALL_INCLUDEDIR}/hublink\")" COMPONENT devel)
install(SCRIPT cmake/install_headers.cmake COMPONENT devel)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Hublink)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/HublinkConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES cmake/HublinkConfig.cmake cmake/HublinkInterface.cmake
              ${CMAKE_BINARY_DIR}/HublinkConfigVersion.cmake
        DESTINATION ${config_dir} COMPONENT devel)
install(EXPORT HublinkTargets NAMESPACE Hublink:: DESTINATION ${config_dir} COMPONENT devel)

file(RELATIVE_PATH from_pkgconfig /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" from_pkgconfig ${from_pkgconfig})
configure_file(packaging/hublink.pc.in ${CMAKE_BINARY_DIR}/hublink.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/hublink.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT devel)

install(FILES examples/echo_provider.cpp examples/requester.cpp
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT devel)
install(DIRECTORY examples/loops DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT devel
        FILES_MATCHING PATTERN "*.cpp" PATTERN "*.h")
set(external examples/external)
install(FILES ${external}/CMakeLists.txt ${external}/Makefile ${external}/converter.stp
              ${external}/provider.cpp ${external}/requester.cpp
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/${external} COMPONENT devel)

# --- For plugins in Python ---

install(DIRECTORY languages/python/src/hublink DESTINATION lib/python3/dist-packages
        COMPONENT python PATTERN __pycache__ EXCLUDE)

# --- For the shell and man ---

find_program(GZIP gzip REQUIRED)

# hublink_install_gz(FILE COMPONENT directory): the file, compressed, the same at each build.
function(hublink_install_gz file component directory)
  get_filename_component(name ${file} NAME)
  set(output ${CMAKE_BINARY_DIR}/compressed/${component}/${name}.gz)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/compressed/${component})
  add_custom_command(OUTPUT ${output} COMMAND ${GZIP} -9nc ${file} > ${output}
                     DEPENDS ${file} WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} VERBATIM)
  string(MAKE_C_IDENTIFIER compressed_${component}_${name} target)
  add_custom_target(${target} ALL DEPENDS ${output})
  install(FILES ${output} DESTINATION ${directory} COMPONENT ${component})
endfunction()

# hublink_install_command_help(COMPONENT command): its man page and its completions.
function(hublink_install_command_help component command)
  hublink_install_gz(${CMAKE_SOURCE_DIR}/man/${command}.1 ${component} ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES completion/bash/${command} COMPONENT ${component}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES completion/zsh/_${command} COMPONENT ${component}
          DESTINATION ${HUBLINK_ZSH_COMPLETION_DIR})
endfunction()

foreach(command IN LISTS commands)
  hublink_install_command_help(runtime ${command})
endforeach()
hublink_install_command_help(devel stpc)
hublink_install_gz(${CMAKE_SOURCE_DIR}/man/hublink-bridge.1 bridge ${CMAKE_INSTALL_MANDIR}/man1)
hublink_install_gz(${CMAKE_SOURCE_DIR}/man/hublink-kvs.5 runtime ${CMAKE_INSTALL_MANDIR}/man5)

include(cmake/HublinkPackage.cmake)
