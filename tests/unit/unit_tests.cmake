# Unit tests of the pure functions of mcu_tool2 and utils: checksums, frames,
# hex strings, formatting, files and diagnostics. Included from the tests
# directory's CMakeLists.txt.
if(NOT TARGET GTest::gtest_main)
  find_package(GTest REQUIRED)
endif()
include(GoogleTest)

add_executable(unit_tests
  ${CMAKE_CURRENT_LIST_DIR}/unit_support.cpp
  ${CMAKE_CURRENT_LIST_DIR}/utils_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/checksum_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/files_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/hex_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/frame_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/format_test.cpp
)
target_include_directories(unit_tests PRIVATE ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(unit_tests PRIVATE mcu_tool2_lib GTest::gtest_main)
gtest_discover_tests(unit_tests NO_PRETTY_VALUES)
