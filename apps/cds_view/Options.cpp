// SPDX-License-Identifier: MIT
#include "Options.h"
#include "options.h"

namespace {

const char usage[] =
    "Usage: cds_view SOCKET [PATH...] [options]\n"
    "  or:  cds_view device[:baud[:mode]] [PATH...] [options]\n"
    "Show the data block of a running controller, which serves it on a Unix socket or a serial line\n"
    "(baud 9600 if not given, mode rs232 or rs485): names, types and values, until Ctrl-C.\n"
    "  PATH              only this item and what is in it, such as position.lat or levels[2]\n"
    "  --once            print once; so it does where the output is no terminal\n"
    "  --csv             comma-separated form, a row for each look\n"
    "  --plot            draw the values over time (SVG) at the end, to standard output\n"
    "  --output FILE     with --plot: into that file\n"
    "  --set PATH=VALUE  write a value, where the controller allows it; all elements of an array: 1,2,3\n"
    "  --every MS        time between two looks [ms] (500)\n"
    "  --seconds N       look for so long\n"
    "  -h, --help        this text\n"
    "  --version         the version\n";

} // namespace

Options::Options(int argc, char** argv) {
    const auto set = [this](const char* value) {
        if (!strchr(value, '=')) fail(2, "--set needs PATH=VALUE, not %s", value);
        sets.emplace_back(value);
        return true;
    };
    paths = read_options(argc, argv, usage,
                         {{"once", once},
                          {"csv", csv},
                          {"plot", plot},
                          {"output", output},
                          {"set", set},
                          {"every", every, 10, 3600000},
                          {"seconds", seconds, 0, 1000000}});
    if (paths.empty()) fail(2, "give a socket or a serial line (try --help)");
    source = paths[0];
    paths.erase(paths.begin());
    if (once + csv + plot > 1 && !(once && csv && !plot)) fail(2, "one of --once, --csv and --plot (try --help)");
    if (!output.empty() && !plot) fail(2, "--output needs --plot (try --help)");
}
