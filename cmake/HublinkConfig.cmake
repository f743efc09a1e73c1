# For plugins built against an installation:
#
#   find_package(Hublink)
#   hublink_interface(adder CATALOGUE adder.stp LANGUAGE cpp)    # HublinkInterface.cmake
#   target_link_libraries(my_plugin PRIVATE adder)
include(${CMAKE_CURRENT_LIST_DIR}/HublinkTargets.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/HublinkInterface.cmake)
