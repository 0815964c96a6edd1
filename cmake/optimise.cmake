# SPDX-License-Identifier: MIT
# kav_optimise(TARGET): how the shared library of a released build is made faster and smaller than its sources one by one.
# Nobody takes the place of its functions, so it calls them itself without a way round (and may inline them); KAV_LTO looks
# at all of it at once. MinSizeRel, as the preset `small` has it, saves what a board has no use for.
include(CheckIPOSupported)
include(CheckLinkerFlag)
if(KAV_LTO)
    check_ipo_supported(RESULT KAV_HAS_LTO OUTPUT reason LANGUAGES C CXX)
    if(NOT KAV_HAS_LTO)
        message(WARNING "No optimisation at link time here: ${reason}")
    endif()
endif()
check_linker_flag(CXX "-Wl,--fatal-warnings,-z,pack-relative-relocs" KAV_HAS_PACKED_RELOCATIONS) # some only ignore it aloud

function(kav_optimise target)
    if(KAV_SANITIZE)
        return()
    endif()
    set(released $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
    target_compile_options(${target} PRIVATE "$<${released}:-fno-semantic-interposition;-ffunction-sections;-fdata-sections>"
        # Nothing unwinds through a library without exceptions, but debuggers do: an exception that leaves a handler ends the
        # process there, as it does on 32-bit ARM in any build.
        "$<$<CONFIG:MinSizeRel>:-fno-asynchronous-unwind-tables;-fno-unwind-tables>")
    get_target_property(type ${target} TYPE)
    if(type STREQUAL OBJECT_LIBRARY)
        return()
    endif()
    target_link_options(${target} PRIVATE "$<${released}:-Wl,-Bsymbolic-functions;-Wl,--gc-sections>")
    if(KAV_HAS_PACKED_RELOCATIONS)
        target_link_options(${target} PRIVATE "$<${released}:-Wl,-z,pack-relative-relocs>")
    endif()
    if(KAV_LTO AND KAV_HAS_LTO)
        set_target_properties(${target} PROPERTIES INTERPROCEDURAL_OPTIMIZATION ON)
    endif()
endfunction()
