# Cross-build for the gateway. Point GATEWAY_TOOLCHAIN_PREFIX at the
# compiler prefix and GATEWAY_SYSROOT at the gateway's root file system
# (which holds liborbiil.so, libdusb.so and liborbsm.so), e.g.
#
#   cmake -S . -B build-gw -DCMAKE_TOOLCHAIN_FILE=cmake/gateway-toolchain.cmake \
#         -DGATEWAY_TOOLCHAIN_PREFIX=mips-linux-gnu- -DGATEWAY_SYSROOT=/opt/gw/sysroot \
#         -DUSBMGR_HOST_PLATFORM=OFF -DUSBMGR_PLATFORM_LIBDIR=/opt/gw/sysroot/usr/lib \
#         -DUSBMGR_TESTS=OFF -DUSBMGR_BENCH=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips CACHE STRING "Gateway processor")
set(GATEWAY_TOOLCHAIN_PREFIX "mips-linux-gnu-" CACHE STRING "Cross compiler prefix")
set(GATEWAY_SYSROOT "" CACHE PATH "Gateway root file system")

set(CMAKE_C_COMPILER ${GATEWAY_TOOLCHAIN_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${GATEWAY_TOOLCHAIN_PREFIX}g++)
if(GATEWAY_SYSROOT)
  set(CMAKE_SYSROOT ${GATEWAY_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH ${GATEWAY_SYSROOT})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
