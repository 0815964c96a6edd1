// SPDX-License-Identifier: MIT
#pragma once
#include <string>

/// What the user wants; wrong arguments end the program with status 2.
struct Options {
    Options(int argc, char** argv);

    std::string source;  ///< an interface, a file, or "-"
    bool is_log = false; ///< it is a file or "-"
    std::string record;  ///< the log to write; empty: none
    bool once = false, csv = false, listen = false, yes = false;
    int seconds = 5;   ///< [s] that --once listens
    long request = -1; ///< PGN; negative: none
    long clear = -1;   ///< address; negative: none
    long to = 255;     ///< whom the request is for
};
