# The virtual MCU's own smoke test and the SPI test client. include() this
# from tests/CMakeLists.txt (after GoogleTest is available).
if(NOT TARGET GTest::gtest_main)
  find_package(GTest REQUIRED)
endif()

add_executable(vmcu_spi_client ${CMAKE_CURRENT_LIST_DIR}/support/vmcu_spi_client.cpp)

add_library(vmcu_test_support STATIC ${CMAKE_CURRENT_LIST_DIR}/support/vmcu_harness.cpp)
target_include_directories(vmcu_test_support PUBLIC ${CMAKE_CURRENT_LIST_DIR})

add_executable(vmcu_smoke_test ${CMAKE_CURRENT_LIST_DIR}/vmcu_smoke_test.cpp)
target_link_libraries(vmcu_smoke_test PRIVATE vmcu_test_support GTest::gtest_main)
target_compile_definitions(vmcu_smoke_test PRIVATE
  VMCU_PATH="$<TARGET_FILE:vmcu>"
  VMCU_SPIDEV_PATH="$<TARGET_FILE:vmcu_spidev>"
  VMCU_SPI_CLIENT_PATH="$<TARGET_FILE:vmcu_spi_client>")
add_dependencies(vmcu_smoke_test vmcu vmcu_spidev vmcu_spi_client)
add_test(NAME vmcu_smoke_test COMMAND vmcu_smoke_test)
set_tests_properties(vmcu_smoke_test PROPERTIES TIMEOUT 60)
