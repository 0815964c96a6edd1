// SPDX-License-Identifier: MIT
#pragma once
#include <string>

struct Arguments {
    std::string comm;     ///< device argument; empty: the simulator
    std::string can;      ///< CAN interface; empty: a bus in memory
    int seconds = -1;     ///< how long to run; -1: 10 with the simulator, else without end
    unsigned faults = 40; ///< one frame in so many is hit; 0: none
    std::string plot;     ///< where to draw the track; empty: nowhere
    std::string settings; ///< file; empty: beside the program
    std::string share;    ///< Unix socket to show the machine's data on; empty: none
    std::string trace;    ///< where to write what the diners did; empty: nowhere
    int speed = 1;        ///< of the simulated machine, in times of real time
    bool quiet = false;
    bool messages = false; ///< also print each message of the receiver
    bool serve = false;    ///< only the simulated receiver, for another program to listen to
};

/// Read the command line; a wrong one ends the program with one line and status 2, --help with the usage and 0.
Arguments parse_arguments(int argc, char** argv);
