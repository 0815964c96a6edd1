# SPDX-License-Identifier: MIT
# What the toolchain files of the 32-bit machines share: Debian's cross compiler, and in KAV_SYSROOT the unpacked packages
# of that machine (tools/get_sysroot makes such a folder). The file that includes this names compiler_triplet and
# CMAKE_LIBRARY_ARCHITECTURE.
set(KAV_SYSROOT "" CACHE PATH "Folder with the unpacked packages of the machine that is built for")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KAV_SYSROOT)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${compiler_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${compiler_triplet}-g++)

# The C library's headers come with the compiler, all else from the sysroot; programs (moc, for one) are this machine's.
set(CMAKE_FIND_ROOT_PATH ${KAV_SYSROOT} /usr/${compiler_triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(QT_HOST_PATH /usr)
file(GLOB host_qt_tools /usr/lib/*/cmake/Qt6CoreTools)
cmake_path(GET host_qt_tools PARENT_PATH QT_HOST_PATH_CMAKE_DIR)

set(sysroot_libraries
    ${KAV_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE} ${KAV_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
list(TRANSFORM sysroot_libraries PREPEND "-Wl,-rpath-link," OUTPUT_VARIABLE rpath_link)
list(JOIN rpath_link " " rpath_link)
set(CMAKE_EXE_LINKER_FLAGS_INIT ${rpath_link})
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${rpath_link})
