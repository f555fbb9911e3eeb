# Installation of everything beyond the program and the library targets
# themselves (those are in src/upgrade/ and sim/): the exported CMake
# package, the pkg-config file, the manual page and the bash completion.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(MCU_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/mcu_tool2)
set(MCU_INSTALL_DIR ${CMAKE_CURRENT_LIST_DIR})
set(MCU_DOCS_DIR ${PROJECT_SOURCE_DIR}/docs)

# CMake package: find_package(mcu_tool2) gives mcu_tool2::mcu_tool2.
install(EXPORT mcu_tool2Targets
  NAMESPACE mcu_tool2::
  DESTINATION ${MCU_CMAKE_PACKAGE_DIR}
  COMPONENT dev)
configure_package_config_file(
  ${MCU_INSTALL_DIR}/mcu_tool2Config.cmake.in
  ${PROJECT_BINARY_DIR}/mcu_tool2Config.cmake
  INSTALL_DESTINATION ${MCU_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/mcu_tool2ConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/mcu_tool2Config.cmake
  ${PROJECT_BINARY_DIR}/mcu_tool2ConfigVersion.cmake
  DESTINATION ${MCU_CMAKE_PACKAGE_DIR}
  COMPONENT dev)

# pkg-config: relocatable, the prefix is found from the file's own place.
# With absolute install directories the file names them as they are.
set(MCU_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(MCU_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(MCU_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(MCU_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}/mcu_tool2")
else()
  file(RELATIVE_PATH MCU_PC_UP /prefix/${MCU_PC_DIR} /prefix)
  string(REGEX REPLACE "/$" "" MCU_PC_UP "${MCU_PC_UP}")
  set(MCU_PC_PREFIX "\${pcfiledir}/${MCU_PC_UP}")
  set(MCU_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(MCU_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}/mcu_tool2")
endif()
configure_file(${MCU_INSTALL_DIR}/mcu_tool2.pc.in ${PROJECT_BINARY_DIR}/mcu_tool2.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/mcu_tool2.pc
  DESTINATION ${MCU_PC_DIR}
  COMPONENT dev)

# Manual page, compressed without name or time stamp (reproducible).
find_program(MCU_GZIP gzip REQUIRED)
set(MCU_MAN_GZ ${PROJECT_BINARY_DIR}/docs/mcu_tool2.1.gz)
add_custom_command(OUTPUT ${MCU_MAN_GZ}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/docs
  COMMAND ${MCU_GZIP} -9n -c ${MCU_DOCS_DIR}/mcu_tool2.1 > ${MCU_MAN_GZ}
  DEPENDS ${MCU_DOCS_DIR}/mcu_tool2.1
  COMMENT "Compressing the manual page mcu_tool2(1)"
  VERBATIM)
add_custom_target(mcu_tool2_man ALL DEPENDS ${MCU_MAN_GZ})
install(FILES ${MCU_MAN_GZ}
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
  COMPONENT tool)

# Bash completion, where bash-completion looks for it on demand.
install(FILES ${MCU_DOCS_DIR}/completion/mcu_tool2
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
  COMPONENT tool)
