// SPDX-License-Identifier: MIT
#include "Arguments.h"
#include "options.h"

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

} // namespace

Arguments parse_arguments(int argc, char** argv) {
    Arguments a;
    const auto others = read_options(argc, argv, usage,
                                     {{"comm", a.comm, 'c'},
                                      {"can", a.can},
                                      {"plot", a.plot},
                                      {"trace", a.trace},
                                      {"settings", a.settings},
                                      {"share", a.share},
                                      {"seconds", a.seconds, 0, 1000000},
                                      {"faults", a.faults, 0u, 1000000u},
                                      {"speed", a.speed, 1, 100},
                                      {"messages", a.messages},
                                      {"quiet", a.quiet},
                                      {"serve", a.serve}});
    if (!others.empty()) fail(2, "unknown argument %s (try --help)", others[0].c_str());
    if (a.serve && !a.comm.empty()) fail(2, "--serve plays the receiver: it takes no --comm (try --help)");
    return a;
}
