# Run at the time of the installation: installs those headers that the plugin side, the classes
# written by stpc and the examples need, under the names by which they are included, and the options
# of a started plugin, which some read themselves.
cmake_policy(VERSION 3.25)

set(pending hublink_plugin/hublink_plugin.h hublink_plugin/hub_finder.h
            hublink_plugin/interface_side.h hublink_plugin/interface_core.h
            active_hub/plugin_options.h generated/hublink_plugin_impl.h
            stp_transport/spec/stp_stub_support.h stp_transport/transport/stp_transport.h
            stp_transport/retry/stp_retryhandler.h)

# Appends what `file` includes by a name in quotes to `pending`.
macro(note_includes file)
  file(STRINGS ${file} lines REGEX "^#include \"")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" name "${line}")
    list(APPEND pending ${name})
  endforeach()
endmacro()

foreach(example echo_provider requester)
  note_includes(${source_dir}/examples/${example}.cpp)
endforeach()
set(installed)
while(pending)
  list(POP_FRONT pending header)
  if(header IN_LIST installed)
    continue()
  endif()
  list(APPEND installed ${header})
  find_file(path ${header} PATHS ${source_dir}/src/shared ${source_dir}/src ${source_dir}
            NO_DEFAULT_PATH NO_CACHE REQUIRED)
  note_includes(${path})
  get_filename_component(folder ${header} DIRECTORY)
  file(INSTALL ${path} DESTINATION ${CMAKE_INSTALL_PREFIX}/${include_dir}/${folder})
  unset(path)
endwhile()
