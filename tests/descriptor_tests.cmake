# Descriptors: the library's public calls in the test process itself, against
# the virtual MCU, with the spidev emulation preloaded into the process (the
# test points VMCU_SPI_SOCKET at each MCU it starts). A cross build hands the
# library to the emulated process through the emulator. (A sanitized test
# program accepts the preloaded library by its own default options.)
add_executable(descriptor_tests e2e/descriptor_test.cpp)
target_link_libraries(descriptor_tests PRIVATE mcu_tool2_lib test_harness GTest::gtest_main)
add_dependencies(descriptor_tests vmcu vmcu_spidev)
if(CMAKE_CROSSCOMPILING)
  set(MCU_DESCRIPTOR_ENV "QEMU_SET_ENV=LD_PRELOAD=$<TARGET_FILE:vmcu_spidev>")
else()
  set(MCU_DESCRIPTOR_ENV "LD_PRELOAD=$<TARGET_FILE:vmcu_spidev>")
endif()
gtest_discover_tests(descriptor_tests NO_PRETTY_VALUES DISCOVERY_TIMEOUT 30
  PROPERTIES TIMEOUT 120
             ENVIRONMENT "${MCU_DESCRIPTOR_ENV}")
