// SPDX-License-Identifier: MIT
#include "Options.h"
#include "options.h"
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char usage[] =
    "Usage: bus_monitor can0 [options]\n"
    "  or:  bus_monitor FILE [--csv]\n"
    "Show the nodes of a bus with SAE J1939 or ISO 11783 and their trouble codes, every second until\n"
    "Ctrl-C, or from a recorded file (candump -L; - for standard input).\n"
    "  --once             listen for 5 s and print once; with --seconds N for that long\n"
    "  --csv              comma-separated form, printed at the end\n"
    "  --listen           send nothing: no address, no questions\n"
    "  --request PGN      ask for a PGN and print what comes for 5 s; with --to ADDRESS one node only\n"
    "  --clear ADDRESS    erase the codes of a node; asks before, not with --yes\n"
    "  --record FILE      write all frames into a file, in the form of candump -L\n"
    "  -h, --help         this text\n"
    "  --version          the version\n"
    "Numbers may be given in hexadecimal: 0xFECA.\n";

} // namespace

Options::Options(int argc, char** argv) {
    const auto sources = read_options(argc, argv, usage,
                                      {{"once", once},
                                       {"csv", csv},
                                       {"listen", listen},
                                       {"yes", yes},
                                       {"seconds", seconds, 0, 86400},
                                       {"request", request, 0L, 0x3FFFFL},
                                       {"to", to, 0L, 253L},
                                       {"clear", clear, 0L, 253L},
                                       {"record", record}});
    if (sources.size() != 1) fail(2, "give one interface or one file (try --help)");
    source = sources[0];
    struct stat s;
    // An interface has no file of its own; what has a slash in its name is none.
    is_log = source == "-" || source.find('/') != std::string::npos || stat(source.c_str(), &s) == 0;
    const bool speaks = request >= 0 || clear >= 0;
    if (is_log && (speaks || !record.empty())) fail(2, "nothing can be asked of or recorded from a file");
    if (listen && speaks) fail(2, "--listen sends nothing, --request and --clear do");
    if (request >= 0 && clear >= 0) fail(2, "one of --request and --clear at a time");
    if (clear >= 0 && !yes && !isatty(STDIN_FILENO)) fail(2, "--clear asks before: without a terminal it needs --yes");
}
