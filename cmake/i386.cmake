# SPDX-License-Identifier: MIT
# Toolchain of the 32-bit PC: the board's word size at this machine's full speed.
set(compiler_triplet i686-linux-gnu)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
# A 64-bit PC runs these programs itself if they name the sysroot's loader and libraries, children of theirs included.
# The older kind of library path also holds for the libraries that Qt's library wants.
set(CMAKE_BUILD_RPATH ${sysroot_libraries})
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT
    " -Wl,--disable-new-dtags -Wl,--dynamic-linker=${KAV_SYSROOT}/lib/ld-linux.so.2")
