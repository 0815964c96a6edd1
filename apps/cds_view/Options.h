// SPDX-License-Identifier: MIT
#pragma once
#include <string>
#include <vector>

/// What the user wants; wrong arguments end the program with status 2.
struct Options {
    Options(int argc, char** argv);

    std::string source;             ///< a socket, or device[:baud[:mode]]
    std::vector<std::string> paths; ///< what to show; empty: everything
    std::vector<std::string> sets;  ///< PATH=VALUE
    bool once = false, csv = false, plot = false;
    std::string output; ///< file for the picture; empty: standard output
    int every = 500;    ///< [ms] between two looks
    int seconds = -1;   ///< [s] to look; negative: until Ctrl-C
};
