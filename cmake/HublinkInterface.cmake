# Interfaces of one's own: a catalogue is compiled when the program is built. Serves this tree and
# those who build against an installation alike.

# hublink_interface(NAME CATALOGUE file [LANGUAGE cpp])
#
# Makes the library NAME of both sides of the spec in `file`, for authors of plugins with LANGUAGE cpp:
# whoever links it includes "<spec>.h". Without it the library is in the hub's own style, with a header
# "<spec>_<side>_impl.h" for each side. Names of headers are in lower case. In the catalogue, "spec" and
# "side" stand at the beginning of their lines.
function(hublink_interface name)
  cmake_parse_arguments(interface "" "CATALOGUE;LANGUAGE" "" ${ARGN})
  get_filename_component(catalogue ${interface_CATALOGUE} ABSOLUTE)
  # The names of the output follow from the catalogue's.
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${catalogue})
  file(STRINGS ${catalogue} spec_line REGEX "^spec +[A-Za-z0-9_]+")
  file(STRINGS ${catalogue} side_lines REGEX "^side +[A-Za-z0-9_]+")
  string(REGEX REPLACE "^spec +([A-Za-z0-9_]+).*" "\\1" spec "${spec_line}")
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/${name})
  set(stems)
  set(style)
  if(interface_LANGUAGE STREQUAL cpp)
    string(TOLOWER ${spec} stems)
    set(style --language cpp)
  elseif(interface_LANGUAGE)
    message(FATAL_ERROR "hublink_interface: no library is made in the language ${interface_LANGUAGE}")
  else()
    foreach(line IN LISTS side_lines)
      string(REGEX REPLACE "^side +([A-Za-z0-9_]+).*" "\\1" side "${line}")
      string(TOLOWER ${spec}_${side}_impl stem)
      list(APPEND stems ${stem})
    endforeach()
  endif()
  set(outputs)
  foreach(stem IN LISTS stems)
    list(APPEND outputs ${folder}/${stem}.h ${folder}/${stem}.cpp)
  endforeach()
  file(MAKE_DIRECTORY ${folder})
  # Files that stay as they are keep their time; the stamp says that the catalogue has been compiled.
  add_custom_command(OUTPUT ${folder}/compiled.stamp
                     BYPRODUCTS ${outputs}
                     COMMAND Hublink::stpc ${catalogue} ${style} --output ${folder}
                     COMMAND ${CMAKE_COMMAND} -E touch ${folder}/compiled.stamp
                     DEPENDS Hublink::stpc ${catalogue}
                     COMMENT "Compiling the interface ${spec}" VERBATIM)
  add_library(${name} STATIC ${outputs} ${folder}/compiled.stamp)
  target_include_directories(${name} PUBLIC ${folder})
  target_link_libraries(${name} PUBLIC $<IF:$<BOOL:${style}>,Hublink::plugin,Hublink::stp_transport>)
  target_compile_options(${name} PRIVATE -fno-exceptions)
  # Each side names its tables alike.
  set_target_properties(${name} PROPERTIES UNITY_BUILD OFF)
  if(COMMAND hublink_compile_options)
    hublink_compile_options(${name})
  endif()
endfunction()
