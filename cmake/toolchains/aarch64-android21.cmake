# Android build: an AArch64 position-independent executable for Android 5.0
# (API level 21) and later, linked against the device's own C library (bionic)
# the way Android links its programs, with Debian's clang and lld; no NDK.
#   cmake -S . -B build-android -DMCU_BUILD_TESTS=OFF \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-android21.cmake
#   cmake --build build-android --target mcu_tool2
#
# What it uses, all vendored under third_party/ (see the READMEs there):
#   - bionic's headers for API 21, which hide every later declaration, so a
#     call to a function an API-21 device lacks fails to compile;
#   - libc++'s headers (Debian's libc++-14-dev) for the C++ standard headers,
#     header-only: the tool needs no C++ library at run time;
#   - AOSP's start-up objects, built here from their sources: crtbegin
#     (calls __libc_init), crtbrand (the Android ident note naming API 21)
#     and crtend;
#   - the libc.so, libm.so and libdl.so of an Android 9 image to link against
#     (a device resolves the same names in its own /system/lib64), and its
#     linker64, to run the result under qemu-aarch64 -L MCU_ANDROID_HOME.
# Everything unpacked and built goes to MCU_ANDROID_HOME (default
# BUILD_DIR/android), made once at the first configuration.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(MCU_ANDROID_API 21)
set(MCU_ANDROID ON)
set(target aarch64-linux-android${MCU_ANDROID_API})

find_program(CMAKE_C_COMPILER NAMES clang-14 clang REQUIRED)
find_program(CMAKE_CXX_COMPILER NAMES clang++-14 clang++ REQUIRED)
set(CMAKE_C_COMPILER_TARGET ${target})
set(CMAKE_CXX_COMPILER_TARGET ${target})
set(CMAKE_ASM_COMPILER_TARGET ${target})
# The compiler checks compile without linking: a link needs the start-up
# objects below, which the checks' projects do not know.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

if(NOT MCU_ANDROID_HOME)
  set(MCU_ANDROID_HOME ${CMAKE_BINARY_DIR}/android)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MCU_ANDROID_HOME)
set(third_party ${CMAKE_CURRENT_LIST_DIR}/../../third_party)
set(runtime ${MCU_ANDROID_HOME}/system/lib64)
set(CMAKE_SYSROOT ${MCU_ANDROID_HOME}/sysroot)
set(CMAKE_FIND_ROOT_PATH ${MCU_ANDROID_HOME})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(libcxx /usr/lib/llvm-14/include/c++/v1)
set(crt ${MCU_ANDROID_HOME}/crt)
if(NOT EXISTS ${crt}/crtend_android.o)
  if(NOT EXISTS ${libcxx}/cstdint)
    message(FATAL_ERROR "no libc++ headers in ${libcxx} (Debian package libc++-14-dev)")
  endif()
  file(ARCHIVE_EXTRACT INPUT ${third_party}/bionic/bionic-api21-aarch64-headers.tar.gz
       DESTINATION ${MCU_ANDROID_HOME})
  file(ARCHIVE_EXTRACT INPUT ${third_party}/android/android9-arm64-runtime.tar.gz
       DESTINATION ${MCU_ANDROID_HOME})
  # libc++ includes the NDK's version header, which bionic does not have.
  file(WRITE ${MCU_ANDROID_HOME}/include/android/ndk-version.h
       "/* Stand-in for the NDK's version header, which libc++ includes on Android. */\n"
       "#define __NDK_MAJOR__ 27\n#define __NDK_MINOR__ 0\n")
  set(src ${third_party}/android/crt/libc)
  file(MAKE_DIRECTORY ${crt})
  foreach(object "crtbegin.c;crtbegin_dynamic.o;-fPIE;-O2"
                 "crtbrand.S;crtbrand.o;-DPLATFORM_SDK_VERSION=${MCU_ANDROID_API}"
                 "crtend.S;crtend_android.o")
    list(POP_FRONT object source output)
    execute_process(
      COMMAND ${CMAKE_C_COMPILER} --target=${target} --sysroot=${CMAKE_SYSROOT} -I${src}
              ${object} -c ${src}/arch-common/bionic/${source} -o ${crt}/${output}
      RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR "building the start-up object ${output} failed")
    endif()
  endforeach()
endif()

# Compiling: bionic's headers, libc++'s headers without its library, no
# exceptions or run-time type information (the tool uses neither), and a
# call to anything newer than API 21 is an error.
set(flags "-fPIC -Werror=implicit-function-declaration -Werror=unguarded-availability")
set(CMAKE_C_FLAGS_INIT "${flags}")
set(CMAKE_CXX_FLAGS_INIT
    "${flags} -nostdinc++ -isystem ${libcxx} -isystem ${MCU_ANDROID_HOME}/include -fno-exceptions -fno-rtti")
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# Linking: as Android links a program, the start-up objects around the
# program's own, bionic's libraries and nothing else, Android's linker as the
# interpreter; shared objects (the spidev emulation of the tests) the same
# way, without the program's start-up objects.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-fuse-ld=lld -nostdlib -Wno-unused-command-line-argument -pie -Wl,-dynamic-linker,/system/bin/linker64 -Wl,--hash-style=both -L${runtime}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT
    "-fuse-ld=lld -nostdlib -Wno-unused-command-line-argument -L${runtime}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${CMAKE_SHARED_LINKER_FLAGS_INIT}")
foreach(lang C CXX)
  set(CMAKE_${lang}_STANDARD_LIBRARIES "-lc -lm -ldl")
  set(CMAKE_${lang}_LINK_EXECUTABLE
      "<CMAKE_${lang}_COMPILER> <FLAGS> <CMAKE_${lang}_LINK_FLAGS> <LINK_FLAGS> ${crt}/crtbegin_dynamic.o ${crt}/crtbrand.o <OBJECTS> -o <TARGET> <LINK_LIBRARIES> ${crt}/crtend_android.o")
endforeach()
