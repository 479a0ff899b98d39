# Big-endian 32-bit MIPS, the gateway's processor, with Debian's cross
# toolchain (g++-mips-linux-gnu), the tests run under qemu-user
# (qemu-user-static) with the cross C library as their root:
#
#   cmake -S . -B build-mips -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mips-qemu.cmake
#   cmake --build build-mips && (cd build-mips && ctest -L unit)
#
# (scripts/mips-test.sh does both.)
set(GATEWAY_TOOLCHAIN_PREFIX "mips-linux-gnu-" CACHE STRING "Cross compiler prefix")
include(${CMAKE_CURRENT_LIST_DIR}/gateway-toolchain.cmake)
set(USBMGR_MIPS_SYSROOT /usr/mips-linux-gnu CACHE PATH "C library of the cross toolchain")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips-static -L ${USBMGR_MIPS_SYSROOT})
set(USBMGR_HOST_PLATFORM OFF CACHE BOOL "" FORCE)
set(USBMGR_BENCH OFF CACHE BOOL "" FORCE)
