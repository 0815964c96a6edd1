// SPDX-License-Identifier: MIT
#include "Options.h"
#include "fail.h"
#include "util/number_text.h"
#include <getopt.h>

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

int number(const char* option, const char* text, int least, int most) {
    const char* end;
    const int value = Util::to_long32(text, 10, &end);
    if (!*text || *end || value < least || value > most)
        fail(2, "wrong value %s for --%s (%d to %d)", text, option, least, most);
    return value;
}

} // namespace

Options::Options(int argc, char** argv) {
    enum { o_once = 256, o_csv, o_plot, o_output, o_set, o_every, o_seconds, o_version };
    static const option known[] = {{"once", no_argument, nullptr, o_once},
                                   {"csv", no_argument, nullptr, o_csv},
                                   {"plot", no_argument, nullptr, o_plot},
                                   {"output", required_argument, nullptr, o_output},
                                   {"set", required_argument, nullptr, o_set},
                                   {"every", required_argument, nullptr, o_every},
                                   {"seconds", required_argument, nullptr, o_seconds},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, o_version},
                                   {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, ":h", known, nullptr)) != -1;) {
        switch (c) {
        case o_once:
            once = true;
            break;
        case o_csv:
            csv = true;
            break;
        case o_plot:
            plot = true;
            break;
        case o_output:
            output = optarg;
            break;
        case o_set:
            sets.emplace_back(optarg);
            if (sets.back().find('=') == std::string::npos) fail(2, "--set needs PATH=VALUE, not %s", optarg);
            break;
        case o_every:
            every = number("every", optarg, 10, 3600000);
            break;
        case o_seconds:
            seconds = number("seconds", optarg, 0, 1000000);
            break;
        case 'h':
            show_usage(usage, 1);
        case o_version:
            show_version(1);
        case ':':
            fail(2, "%s needs a value (try --help)", argv[optind - 1]);
        default:
            fail(2, "unknown option %s (try --help)", argv[optind - 1]);
        }
    }
    if (optind == argc) fail(2, "give a socket or a serial line (try --help)");
    source = argv[optind];
    paths.assign(argv + optind + 1, argv + argc);
    if (once + csv + plot > 1 && !(once && csv && !plot)) fail(2, "one of --once, --csv and --plot (try --help)");
    if (!output.empty() && !plot) fail(2, "--output needs --plot (try --help)");
}
