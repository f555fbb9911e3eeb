# Debian packages with CPack, one per install component:
#   mcu-tool2      the program, its manual page and bash completion (component tool)
#   mcu-tool2-dev  the static library, headers, CMake and pkg-config files (dev)
# The virtual MCU (component vmcu) is a test double; `cmake --install` puts it
# in place, the packages leave it out.
#
# Configure with -DCMAKE_INSTALL_PREFIX=/usr -DMCU_DEBIAN_DOCS=ON, build, then
# run `cpack -G DEB` in the build tree (scripts/package.sh does all of it, for
# amd64 and, with the AArch64 toolchain file, arm64). The packages install
# under /usr whatever prefix the build was configured with; only with the
# prefix /usr does GNUInstallDirs pick the multiarch library directory
# (lib/<triplet>), with another one the library goes to /usr/lib.
include(GNUInstallDirs)

option(MCU_DEBIAN_DOCS "Install the copyright and changelog files of the Debian packages" OFF)
set(MCU_PACKAGE_MAINTAINER "mcu_tool2 maintainers <mcu-tool2@example.com>"
  CACHE STRING "Maintainer field of the Debian packages")
set(MCU_PACKAGE_COPYRIGHT "the mcu_tool2 authors"
  CACHE STRING "Copyright holder named in the packages")
set(MCU_PACKAGE_LICENSE "proprietary, all rights reserved"
  CACHE STRING "License named in the packages")
set(MCU_DEB_RELEASE 1 CACHE STRING "Debian revision of the packages")

set(MCU_DEB_SOURCE mcu-tool2)
set(MCU_DEB_VERSION ${PROJECT_VERSION}-${MCU_DEB_RELEASE})

if(MCU_DEBIAN_DOCS)
  # Debian wants a copyright file and a compressed changelog in
  # /usr/share/doc/<package>/ of every package. The date honours
  # SOURCE_DATE_EPOCH, so packages built from one commit are identical.
  string(TIMESTAMP MCU_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
  string(TIMESTAMP MCU_COPYRIGHT_YEAR "%Y" UTC)
  set(MCU_DEB_DOCS_DIR ${PROJECT_BINARY_DIR}/debian-docs)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright.in ${MCU_DEB_DOCS_DIR}/copyright @ONLY)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.Debian.in
    ${MCU_DEB_DOCS_DIR}/changelog.Debian @ONLY)
  find_program(MCU_GZIP gzip REQUIRED)
  add_custom_command(OUTPUT ${MCU_DEB_DOCS_DIR}/changelog.Debian.gz
    COMMAND ${MCU_GZIP} -9n -c ${MCU_DEB_DOCS_DIR}/changelog.Debian
      > ${MCU_DEB_DOCS_DIR}/changelog.Debian.gz
    DEPENDS ${MCU_DEB_DOCS_DIR}/changelog.Debian
    VERBATIM)
  add_custom_target(mcu_tool2_debian_docs ALL DEPENDS ${MCU_DEB_DOCS_DIR}/changelog.Debian.gz)
  foreach(pair "tool;mcu-tool2" "dev;mcu-tool2-dev")
    list(GET pair 0 component)
    list(GET pair 1 package)
    install(FILES ${MCU_DEB_DOCS_DIR}/copyright ${MCU_DEB_DOCS_DIR}/changelog.Debian.gz
      DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
      COMPONENT ${component})
    # lintian findings that are decisions, not defects, each with its reason.
    install(FILES ${CMAKE_CURRENT_LIST_DIR}/lintian-overrides/${package}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
      COMPONENT ${component})
  endforeach()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${MCU_DEB_SOURCE})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "${MCU_PACKAGE_COPYRIGHT}")
set(CPACK_PACKAGE_CONTACT "${MCU_PACKAGE_MAINTAINER}")
# Debian packages install under /usr, never under the configured prefix
# (/usr/local by default), which belongs to the local administrator. The
# install rules use relative destinations and the generated pkg-config and
# CMake package files find the prefix from their own place, so all of them
# follow. An absolute install directory (-DCMAKE_INSTALL_LIBDIR=/...) would
# not follow: cpack refuses it.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_ERROR_ON_ABSOLUTE_INSTALL_DESTINATION ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL tool dev)
set(CPACK_COMPONENT_TOOL_DISPLAY_NAME "mcu_tool2 program")
set(CPACK_COMPONENT_DEV_DISPLAY_NAME "mcu_tool2 library and headers")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${MCU_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${MCU_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SOURCE ${MCU_DEB_SOURCE})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# dpkg names the host architecture, which is wrong for a cross build.
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME mcu-tool2)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_DESCRIPTION "maintenance tool for a microcontroller on a serial or SPI link
mcu_tool2 talks to one microcontroller component over a TTY serial port or a
Linux spidev SPI device with a framed message protocol: version and
serial-number queries, reset, firmware upgrade through the bootloader,
upgrade parameters, raw messages and frames, monitoring, link diagnostics,
and device-free CRC-16, CRC-32, hex-dump and clock calculators.")
if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps needs the target's libraries as installed packages; a
  # cross build names the run-time libraries the program links instead.
  # The program needs only the C library (scripts/package.sh checks it).
  set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libc6 (>= 2.34)")
else()
  set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
endif()

set(CPACK_DEBIAN_DEV_PACKAGE_NAME mcu-tool2-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION "static library and headers of mcu_tool2
The link, protocol and firmware-upgrade code of mcu_tool2 as a static library
(libmcu_tool2.a) with its C++ headers mcu_tool2.h and utils.h, a CMake package
(find_package(mcu_tool2), target mcu_tool2::mcu_tool2) and a pkg-config file
(mcu_tool2.pc).")

include(CPack)
