# SPDX-License-Identifier: MIT
# The heap inside a memory space: Doug Lea's malloc, fetched by tools/get_dlmalloc unless a file is named.
set(DLMALLOC_SOURCE "" CACHE FILEPATH "malloc.c of Doug Lea's malloc 2.8.6; empty: fetched from the package sources")
if(NOT DLMALLOC_SOURCE)
    execute_process(COMMAND ${PROJECT_SOURCE_DIR}/tools/get_dlmalloc
        OUTPUT_VARIABLE fetched OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "Doug Lea's malloc could not be fetched")
    endif()
    set(DLMALLOC_SOURCE ${fetched} CACHE FILEPATH "" FORCE)
endif()

add_library(kav_dlmalloc OBJECT ${DLMALLOC_SOURCE})
# A region must not grow outside itself: neither by mmap nor by sbrk.
target_compile_definitions(kav_dlmalloc PRIVATE
    __wasilibc_unmodified_upstream=1 MSPACES=1 ONLY_MSPACES=1 USE_LOCKS=1 USE_SPIN_LOCKS=0
    HAVE_MORECORE=0 HAVE_MMAP=0 NO_MALLOC_STATS=1)
set_source_files_properties(${DLMALLOC_SOURCE} PROPERTIES LANGUAGE C)
target_compile_options(kav_dlmalloc PRIVATE -w -fvisibility=hidden)
if(KAV_SANITIZE)
    # Its own locks are invisible to the thread sanitizer, and it aligns blocks to words, not to what the sanitizer wants.
    target_compile_options(kav_dlmalloc PRIVATE -fno-sanitize=all)
endif()
