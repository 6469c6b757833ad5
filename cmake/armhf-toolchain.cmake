#===- armhf-toolchain.cmake - cross build for 32-bit ARM Linux (armhf) -===#
#
# Debian's cross compiler (g++-arm-linux-gnueabihf) with the sysroot that
# cmake/armhf-sysroot.sh unpacks from Debian's armhf packages (Boost, OpenSSL, GoogleTest).
# Programs built here run under qemu-arm with that sysroot as its library prefix (through
# cmake/armhf-run.sh), so CTest and gtest_discover_tests work as on a native build.
#
#   cmake/armhf-sysroot.sh build-arm-sysroot
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake
#
# LT_ARM_SYSROOT (cache variable or environment) overrides the sysroot folder.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(lt_arm_triplet arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${lt_arm_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${lt_arm_triplet}-g++)

if(NOT LT_ARM_SYSROOT)
  if(DEFINED ENV{LT_ARM_SYSROOT})
    set(LT_ARM_SYSROOT "$ENV{LT_ARM_SYSROOT}")
  else()
    get_filename_component(LT_ARM_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-arm-sysroot" ABSOLUTE)
  endif()
endif()
set(LT_ARM_SYSROOT "${LT_ARM_SYSROOT}" CACHE PATH "armhf sysroot made by cmake/armhf-sysroot.sh")
# try_compile projects read this file again: hand them the same folder.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LT_ARM_SYSROOT)

if(NOT EXISTS "${LT_ARM_SYSROOT}/.sysroot-stamp")
  message(FATAL_ERROR "armhf sysroot '${LT_ARM_SYSROOT}' is missing or incomplete; "
    "run: cmake/armhf-sysroot.sh ${LT_ARM_SYSROOT}  (or: make deps-arm)")
endif()

set(CMAKE_SYSROOT "${LT_ARM_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${LT_ARM_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must look at the armhf .pc files only.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${LT_ARM_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${LT_ARM_SYSROOT}/usr/lib/${lt_arm_triplet}/pkgconfig:${LT_ARM_SYSROOT}/usr/share/pkgconfig")

find_program(LT_QEMU_ARM qemu-arm)
if(NOT LT_QEMU_ARM)
  message(FATAL_ERROR "qemu-arm not found; install qemu-user (or: make deps-arm)")
endif()
# qemu-arm -L <sysroot>, through a script that also lets a program re-execute itself (death tests).
set(CMAKE_CROSSCOMPILING_EMULATOR
  "sh;${CMAKE_CURRENT_LIST_DIR}/armhf-run.sh;${LT_QEMU_ARM};${LT_ARM_SYSROOT}")
