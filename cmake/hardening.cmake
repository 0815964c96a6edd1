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
    # On a board each function that is watched costs 56 bytes, and a probe below each frame 12: the smallest builds watch those
    # with texts on the stack, which is where overruns come from, and leave the probes to the page behind each stack.
    set(strong -fstack-protector-strong)
    if(KAV_HAS_STACK_CLASH_PROTECTION)
        list(APPEND strong -fstack-clash-protection)
    endif()
    target_compile_options(${target} PRIVATE
        "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>"
        "$<$<CONFIG:Release,RelWithDebInfo>:${strong}>" $<$<CONFIG:MinSizeRel>:-fstack-protector>)
    get_target_property(type ${target} TYPE)
    if(NOT type STREQUAL OBJECT_LIBRARY)
        target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
    endif()
    if(type STREQUAL EXECUTABLE)
        target_link_options(${target} PRIVATE -pie)
    endif()
endfunction()
