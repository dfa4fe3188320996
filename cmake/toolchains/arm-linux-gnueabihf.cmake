# Cross build for the device: 32-bit ARM, hard-float ABI, with Debian's
# arm-linux-gnueabihf tool chain (g++-arm-linux-gnueabihf).
#   cmake -S . -B build-armhf \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake
# Test programs run through qemu-user (qemu-arm) with the cross C library
# as the guest's root, so ctest and gtest_discover_tests work on the build
# machine. Set QEL_ARMHF_SYSROOT to use another root.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(QEL_ARMHF_TRIPLET arm-linux-gnueabihf)
if(DEFINED ENV{QEL_ARMHF_SYSROOT})
  set(QEL_ARMHF_SYSROOT $ENV{QEL_ARMHF_SYSROOT})
else()
  set(QEL_ARMHF_SYSROOT /usr/${QEL_ARMHF_TRIPLET})
endif()

set(CMAKE_C_COMPILER ${QEL_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${QEL_ARMHF_TRIPLET}-g++)

# Libraries, headers and packages come from the target's roots only; programs
# (cmake helpers, pkg-config, the emulator) from the build machine. The
# roots are the cross C library's and the build machine's own, where
# Debian's multiarch packages for armhf (`apt install ./...armhf.deb`) put
# their libraries (/usr/lib/arm-linux-gnueabihf, named by
# CMAKE_LIBRARY_ARCHITECTURE, so the build machine's own libraries are never
# found). Appended, so that a build can add its own staging roots with
# -DCMAKE_FIND_ROOT_PATH.
list(APPEND CMAKE_FIND_ROOT_PATH ${QEL_ARMHF_SYSROOT} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The wrapper hands a preload meant for the program (an emulator of a device
# node) to the guest instead of to qemu itself.
get_filename_component(QEL_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR}/../.. ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${QEL_SOURCE_ROOT}/scripts/qemu-arm-run.sh
    CACHE FILEPATH "Runs target programs on the build machine")
