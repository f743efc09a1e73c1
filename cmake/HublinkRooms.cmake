# How the rooms of the house are built: every room is one static library made of the sources in its
# folder, every program one executable on top of them.

function(hublink_compile_options target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
  # What clang counts as a conversion and GCC doesn't.
  if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    target_compile_options(${target} PRIVATE -Wno-sign-conversion)
  endif()
  # Of sources that are compiled together GCC takes all for headers, where a name of the file's own
  # would be a fault.
  if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
  endif()
  # GCC 12 sees overlaps in its own std::string where there are none.
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
    # It takes every release of a counted reference for the last one.
    target_compile_options(${target} PRIVATE -Wno-use-after-free)
  endif()
  if(HUBLINK_SANITIZE)
    target_compile_definitions(${target} PRIVATE HUBLINK_SANITIZE)
    target_compile_options(${target} PUBLIC -fsanitize=address,undefined -fno-sanitize-recover=all
                                            -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=address,undefined)
  endif()
endfunction()

# hublink_room(NAME DIR folder [SUBDIRS ...] [EXCLUDE files] [LINKS rooms])
function(hublink_room name)
  cmake_parse_arguments(room "" "DIR" "SUBDIRS;EXCLUDE;LINKS" ${ARGN})
  set(patterns ${CMAKE_SOURCE_DIR}/${room_DIR}/*.cpp)
  foreach(sub ${room_SUBDIRS})
    list(APPEND patterns ${CMAKE_SOURCE_DIR}/${room_DIR}/${sub}/*.cpp)
  endforeach()
  file(GLOB sources CONFIGURE_DEPENDS ${patterns})
  foreach(file ${room_EXCLUDE})
    list(REMOVE_ITEM sources ${CMAKE_SOURCE_DIR}/${room_DIR}/${file})
  endforeach()
  add_library(${name} STATIC ${sources})
  add_library(Hublink::${name} ALIAS ${name})
  target_compile_features(${name} PUBLIC cxx_std_20)
  foreach(folder "" /src /src/shared)
    target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}${folder}>)
  endforeach()
  target_link_libraries(${name} PUBLIC ${room_LINKS})
  target_compile_options(${name} PRIVATE -fno-exceptions)
  # Reports name the place in the source, not on the machine where it was built.
  target_compile_options(${name} PRIVATE -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)
  hublink_compile_options(${name})
endfunction()

# hublink_program(NAME SOURCES files LINKS rooms)
function(hublink_program name)
  cmake_parse_arguments(program "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${program_SOURCES})
  add_executable(Hublink::${name} ALIAS ${name})
  target_link_libraries(${name} PRIVATE ${program_LINKS})
  target_compile_definitions(${name} PRIVATE HUBLINK_VERSION="${PROJECT_VERSION}")
  hublink_compile_options(${name})
endfunction()
