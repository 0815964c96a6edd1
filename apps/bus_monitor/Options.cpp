// SPDX-License-Identifier: MIT
#include "Options.h"
#include "fail.h"
#include <cstdlib>
#include <cstring>
#include <getopt.h>
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

long number(const char* option, const char* text, long most) {
    char* end;
    const long value = strtol(text, &end, 0);
    if (!*text || *end || value < 0 || value > most) fail(2, "wrong value %s for --%s (try --help)", text, option);
    return value;
}

} // namespace

Options::Options(int argc, char** argv) {
    enum { o_once = 1, o_csv, o_listen, o_yes, o_seconds, o_request, o_to, o_clear, o_record, o_version };
    const option known[] = {{"once", no_argument, nullptr, o_once},
                            {"csv", no_argument, nullptr, o_csv},
                            {"listen", no_argument, nullptr, o_listen},
                            {"yes", no_argument, nullptr, o_yes},
                            {"seconds", required_argument, nullptr, o_seconds},
                            {"request", required_argument, nullptr, o_request},
                            {"to", required_argument, nullptr, o_to},
                            {"clear", required_argument, nullptr, o_clear},
                            {"record", required_argument, nullptr, o_record},
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
        case o_listen:
            listen = true;
            break;
        case o_yes:
            yes = true;
            break;
        case o_seconds:
            seconds = static_cast<int>(number("seconds", optarg, 86400));
            break;
        case o_request:
            request = number("request", optarg, 0x3FFFF);
            break;
        case o_to:
            to = number("to", optarg, 253);
            break;
        case o_clear:
            clear = number("clear", optarg, 253);
            break;
        case o_record:
            record = optarg;
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
    if (argc - optind != 1) fail(2, "give one interface or one file (try --help)");
    source = argv[optind];
    struct stat s;
    // An interface has no file of its own; what has a slash in its name is none.
    is_log = source == "-" || source.find('/') != std::string::npos || stat(source.c_str(), &s) == 0;
    const bool speaks = request >= 0 || clear >= 0;
    if (is_log && (speaks || !record.empty())) fail(2, "nothing can be asked of or recorded from a file");
    if (listen && speaks) fail(2, "--listen sends nothing, --request and --clear do");
    if (request >= 0 && clear >= 0) fail(2, "one of --request and --clear at a time");
    if (clear >= 0 && !yes && !isatty(STDIN_FILENO)) fail(2, "--clear asks before: without a terminal it needs --yes");
}
