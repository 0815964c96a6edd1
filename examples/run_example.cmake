# SPDX-License-Identifier: MIT
# Runs an example and compares what it prints on standard output with the lines that its source shows under "// Prints:".
# There "..." stands for anything. Without such lines only the result of the program counts.
#   cmake "-DPROGRAM=[emulator and its arguments;]program" -DSOURCE=... -P run_example.cmake
execute_process(COMMAND ${PROGRAM} OUTPUT_VARIABLE printed RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "${printed}\nended with ${result}")
endif()
file(READ ${SOURCE} source)
if(NOT source MATCHES "\n// Prints:\n((//     [^\n]*\n)+)")
    return()
endif()
string(REPLACE "\n//     " "\n" expected "\n${CMAKE_MATCH_1}")
string(REGEX REPLACE "([][+.*()^$?|\\\\])" "\\\\\\1" pattern "${expected}")
string(REPLACE "\\.\\.\\." "[^\n]*" pattern "${pattern}")
string(REGEX REPLACE "[ \n]*\n[ \n]*" "\n" printed_lines "\n${printed}\n")
string(REGEX REPLACE "[ \n]*\n[ \n]*" "\n" pattern "${pattern}")
if(NOT "${printed_lines}" MATCHES "^${pattern}$")
    message(FATAL_ERROR "it shall print\n${expected}\nand printed\n${printed}")
endif()
