# The target: 32-bit ARM, Cortex-A9, soft-float calling convention (Debian's armel), built with
# Debian's g++-arm-linux-gnueabi. What is built here runs on the host through qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7-a)

set(CMAKE_C_COMPILER arm-linux-gnueabi-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabi-g++)
# psabi: notes on a calling convention that changed in GCC 7, before any of this was built.
set(CMAKE_C_FLAGS_INIT "-mcpu=cortex-a9 -mfloat-abi=soft")
set(CMAKE_CXX_FLAGS_INIT "-mcpu=cortex-a9 -mfloat-abi=soft -Wno-psabi")

# The cross compiler's own tree holds the target's C and C++ libraries. Without ONLY, a host header
# or library would be found first.
set(ZEL_TARGET_ROOT /usr/arm-linux-gnueabi)
list(APPEND CMAKE_FIND_ROOT_PATH ${ZEL_TARGET_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${ZEL_TARGET_ROOT})
