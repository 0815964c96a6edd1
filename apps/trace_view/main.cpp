// SPDX-License-Identifier: MIT
// Shows what a trace says of a controller's diners: figures for people at a terminal, and a picture.
#include "Trace_data.h"
#include "Trace_plot.h"
#include "Trace_report.h"
#include "options.h"
#include <algorithm>
#include <cmath>
#include <string>

namespace {

const char usage[] = "Usage: trace_view FILE [--plot OUT] [--from S] [--to S]\n"
                     "Show what a trace of diners says, - for standard input: for each diner its events, how long its\n"
                     "handlers took and how long events waited for them (mean, 99 of 100, worst), its longest queue;\n"
                     "then the longest handlers and the latest timeouts.\n"
                     "  --plot OUT  draw a picture (SVG): handlers as bars, posts as arrows\n"
                     "  --from S    the picture begins so many seconds after the first record (default: 0)\n"
                     "  --to S      and ends there (default: with the last record)\n"
                     "  --help      this text\n"
                     "  --version   the version\n"
                     "Browsers show the same file, too: ui.perfetto.dev, chrome://tracing, speedscope.app.\n"
                     "Status 0: all is well, 1: the file is no trace, damaged or cut (what was before that is shown),\n"
                     "2: wrong arguments, or a file that cannot be read or written.\n";

struct Arguments {
    std::string file, plot;
    double from = 0, to = -1; ///< [s]; `to` negative: the end
};

Arguments read_arguments(int argc, char** argv) {
    Arguments a;
    const auto files =
        read_options(argc, argv, usage, {{"plot", a.plot}, {"from", a.from, 0.0, 1e9}, {"to", a.to, 0.0, 1e9}}, 2);
    if (files.size() != 1) fail(2, "give one file (try --help)");
    a.file = files[0];
    return a;
}

void write_plot(const Arguments& a, const Trace_data& trace) {
    const double from = a.from * 1e6, to = a.to < 0 ? std::max(trace.end, from + 1) : a.to * 1e6;
    if (to <= from) fail(2, "--to must be behind --from");
    FILE* const out = fopen(a.plot.c_str(), "we");
    if (!out) fail(2, "cannot write %s: %s", a.plot.c_str(), strerror(errno));
    draw_trace(out, trace, from, to);
    const bool written = !ferror(out);
    if (fclose(out) != 0 || !written) fail(2, "cannot write %s: %s", a.plot.c_str(), strerror(errno));
}

} // namespace

int main(int argc, char** argv) {
    keep_standard_streams();
    const Arguments a = read_arguments(argc, argv);
    FILE* const file = a.file == "-" ? stdin : fopen(a.file.c_str(), "rbe");
    if (!file) fail(2, "cannot read %s: %s", a.file.c_str(), strerror(errno));
    Trace_data trace;
    const char* const wrong = trace.read(file);
    if (ferror(file)) fail(2, "cannot read %s: %s", a.file.c_str(), strerror(errno));
    if (!trace.handlers.empty() || !trace.diners.empty() || !wrong) print_report(trace);
    finish_output(2);
    if (!a.plot.empty() && (!wrong || !trace.handlers.empty())) write_plot(a, trace);
    if (wrong) fail(1, "%s: line %u: %s", a.file.c_str(), trace.lines(), wrong);
    return 0;
}
