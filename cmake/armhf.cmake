# SPDX-License-Identifier: MIT
# Toolchain of the 32-bit ARM board (hard float). Its programs run here under qemu's user mode.
set(compiler_triplet arm-linux-gnueabihf)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${KAV_SYSROOT})
