# SPDX-License-Identifier: MIT
# kav_man_page(PROGRAM LINE): the program's manual page, made of what it answers to --help and --version, and the line that
# says what it is. None where the tool for that is missing, or the program cannot run here.
find_program(HELP2MAN help2man)

function(kav_man_page program line)
    if(NOT HELP2MAN OR CMAKE_CROSSCOMPILING OR KAV_SANITIZE)
        return()
    endif()
    set(page ${CMAKE_CURRENT_BINARY_DIR}/${program}.1)
    add_custom_command(OUTPUT ${page} DEPENDS ${program} VERBATIM
        COMMAND ${HELP2MAN} --no-info --name=${line} --output=${page} $<TARGET_FILE:${program}>)
    add_custom_target(man_page_${program} ALL DEPENDS ${page})
    add_dependencies(tools man_page_${program})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endfunction()
