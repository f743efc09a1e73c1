# How the rooms of the house are built: every room is one static library made of the sources in its
# folder, every program one executable on top of them.

function(hublink_compile_options target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
  # What clang counts as a conversion and GCC doesn't.
  if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    target_compile_options(${target} PRIVATE -Wno-sign-conversion)
  endif()
  # GCC 12 sees overlaps in its own std::string where there are none.
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
  if(HUBLINK_SANITIZE)
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
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/src
                                            ${CMAKE_SOURCE_DIR}/src/shared)
  target_link_libraries(${name} PUBLIC ${room_LINKS})
  target_compile_options(${name} PRIVATE -fno-exceptions)
  hublink_compile_options(${name})
endfunction()

# hublink_program(NAME SOURCES files LINKS rooms)
function(hublink_program name)
  cmake_parse_arguments(program "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${program_SOURCES})
  target_link_libraries(${name} PRIVATE ${program_LINKS})
  hublink_compile_options(${name})
endfunction()
