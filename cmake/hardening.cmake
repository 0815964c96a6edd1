# SPDX-License-Identifier: MIT
# kav_harden(TARGET): what goes to a machine ends at once where an attack or a fault would else go on: overwritten stack,
# overrun buffer of known size, changed table of the linker. tools/check_hardening shows what a file has of it. Debug builds
# are left alone, and the sanitizers, which find more, in their own way.
include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-fstack-clash-protection KAV_HAS_STACK_CLASH_PROTECTION)

function(kav_harden target)
    if(KAV_SANITIZE)
        return()
    endif()
    set(options -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
    if(KAV_HAS_STACK_CLASH_PROTECTION)
        list(APPEND options -fstack-clash-protection)
    endif()
    set(released $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
    target_compile_options(${target} PRIVATE "$<${released}:${options}>")
    get_target_property(type ${target} TYPE)
    if(NOT type STREQUAL OBJECT_LIBRARY)
        target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
    endif()
    if(type STREQUAL EXECUTABLE)
        target_link_options(${target} PRIVATE -pie)
    endif()
endfunction()
