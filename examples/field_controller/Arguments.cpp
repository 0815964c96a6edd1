// SPDX-License-Identifier: MIT
#include "Arguments.h"
#include "fail.h"
#include <cstdio>
#include <cstdlib>

namespace {

const char usage[] =
    "Usage: field_controller [--comm device[:baud[:rs485|rs232]]] [--seconds N] [--faults N]\n"
    "                        [--speed N] [--can INTERFACE] [--plot FILE] [--trace FILE]\n"
    "                        [--settings FILE] [--share PATH] [--messages | --quiet]\n"
    "  or:  field_controller --serve [--seconds N] [--faults N] [--speed N]\n"
    "  --comm     listen to a receiver on that serial line instead of the simulator\n"
    "  --seconds  run so long (default: 10 with the simulator, until Ctrl-C with a receiver)\n"
    "  --faults   the simulated line spoils one frame in N (default 40, 0: none)\n"
    "  --speed    the simulated machine drives N times as fast, up to 100 (default 1)\n"
    "  --can      be a node of that CAN interface (default: of a bus in memory, with a terminal)\n"
    "  --plot     draw the driven track with its faults into that file (SVG)\n"
    "  --trace    write into that file what the diners did: for trace_view, or a browser's viewer\n"
    "  --settings keep the settings in that file (default: field_controller.settings beside the\n"
    "             program)\n"
    "  --share    show the machine's data to other programs of this user, on a Unix socket of that path:\n"
    "             cds_view PATH\n"
    "  --messages also print each message of the receiver as it comes\n"
    "  --quiet    print only the tables at the end\n"
    "  --serve    only be the receiver: tell the serial device that another program may listen to,\n"
    "             for N seconds or until Ctrl-C\n";

[[noreturn]] void wrong(const std::string& what) {
    fprintf(stderr, "field_controller: %s (try --help)\n", what.c_str());
    exit(2);
}

int number(const char* option, const char* text) {
    char* end = nullptr;
    const long n = text ? strtol(text, &end, 10) : -1;
    if (!text || end == text || *end || n < 0 || n > 1000000)
        wrong(std::string(option) + " needs a number of 0 or more");
    return static_cast<int>(n);
}

} // namespace

Arguments parse_arguments(int argc, char** argv) {
    Arguments a;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (option == "--help" || option == "-h") {
            show_usage(usage, 1);
        } else if (option == "--version") {
            show_version(1);
        } else if (option == "--quiet") {
            a.quiet = true;
        } else if (option == "--messages") {
            a.messages = true;
        } else if (option == "--serve") {
            a.serve = true;
        } else if (option == "--comm" || option == "-c") {
            if (!value) wrong(option + " needs a device");
            a.comm = value;
            ++i;
        } else if (option == "--can") {
            if (!value) wrong(option + " needs an interface");
            a.can = value;
            ++i;
        } else if (option == "--plot") {
            if (!value) wrong(option + " needs a file");
            a.plot = value;
            ++i;
        } else if (option == "--trace") {
            if (!value) wrong(option + " needs a file");
            a.trace = value;
            ++i;
        } else if (option == "--settings") {
            if (!value) wrong(option + " needs a file");
            a.settings = value;
            ++i;
        } else if (option == "--share") {
            if (!value) wrong(option + " needs a path");
            a.share = value;
            ++i;
        } else if (option == "--seconds") {
            a.seconds = number("--seconds", value);
            ++i;
        } else if (option == "--faults") {
            a.faults = static_cast<unsigned>(number("--faults", value));
            ++i;
        } else if (option == "--speed") {
            a.speed = number("--speed", value);
            if (a.speed < 1 || a.speed > 100) wrong("--speed needs a number from 1 to 100");
            ++i;
        } else {
            wrong("unknown argument " + option);
        }
    }
    if (a.serve && !a.comm.empty()) wrong("--serve plays the receiver: it takes no --comm");
    return a;
}
