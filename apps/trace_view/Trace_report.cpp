// SPDX-License-Identifier: MIT
#include "Trace_report.h"
#include <algorithm>
#include <cstdio>

namespace {

constexpr size_t rows_of_a_list = 10;
constexpr int late_ms = 10; ///< [ms] from which on a timeout is called late: what a waiter rounds up to

using Handlers = std::vector<const Trace_data::Handler*>;

struct Figures {
    explicit Figures(std::vector<double> values) {
        if (values.empty()) return;
        for (double v : values) mean += v / static_cast<double>(values.size());
        const size_t at = values.size() * 99 / 100;
        std::nth_element(values.begin(), values.begin() + static_cast<long>(at), values.end());
        p99 = values[at];
        worst = *std::max_element(values.begin(), values.end());
    }
    double mean = 0, p99 = 0, worst = 0;
};

struct Times {
    std::vector<double> lengths, waits; ///< [us]
};

void print_diner(const Trace_data::Diner& d, Times& times) {
    const Figures handler(std::move(times.lengths)), wait(std::move(times.waits));
    printf("%-12s %7u %8u %9.1f %9.1f %9.1f %9.1f %9.1f %9.1f %6d %8u\n",
           d.name.empty() ? "(no diner)" : d.name.c_str(), d.events, d.timeouts, handler.mean, handler.p99,
           handler.worst, wait.mean, wait.p99, wait.worst, d.longest_queue, d.refused);
}

template <class Before>
void print_list(const Trace_data& trace, const char* heading, Handlers all, Before before) {
    if (all.empty()) return;
    printf("\n%s\n", heading);
    const size_t n = std::min(all.size(), rows_of_a_list);
    std::partial_sort(all.begin(), all.begin() + static_cast<long>(n), all.end(), before);
    for (size_t i = 0; i < n; ++i) {
        const Trace_data::Handler& h = *all[i];
        printf("%12.6f %12.1f %8d  %s%s\n", h.begin / 1e6, h.ended(trace.end) - h.begin, h.late_ms, h.name.c_str(),
               h.end == Trace_data::not_ended ? ", still running"
               : h.end == Trace_data::lost    ? ", its end is lost"
                                              : "");
    }
}

} // namespace

void print_report(const Trace_data& trace) {
    printf("%.3f s with %lld records (%lld older ones overwritten, %lld dropped), %zu threads\n", trace.end / 1e6,
           static_cast<long long>(trace.kept), static_cast<long long>(trace.recorded - trace.kept),
           static_cast<long long>(trace.dropped), trace.threads.size());
    if (trace.least_free_nodes >= 0) printf("Free event nodes at least %d. ", trace.least_free_nodes);
    printf("Bytes lost by streams %lld.\n", static_cast<long long>(trace.bytes_lost));
    puts("\n                              Handler [us]                  Post to handler [us]        Longest\n"
         "Diner         Events Timeouts      mean       p99     worst      mean       p99     worst  queue  refused");
    std::vector<Times> times(trace.diners.size());
    for (const Trace_data::Handler& h : trace.handlers) {
        Times& t = times[static_cast<size_t>(h.diner)];
        if (h.end >= 0) t.lengths.push_back(h.end - h.begin);
        if (h.wait >= 0) t.waits.push_back(h.wait);
    }
    for (size_t i = 0; i < times.size(); ++i) print_diner(trace.diners[i], times[i]);

    const auto length = [&trace](const Trace_data::Handler* h) { return h->ended(trace.end) - h->begin; };
    Handlers all, late;
    for (const Trace_data::Handler& h : trace.handlers) {
        all.push_back(&h);
        if (h.late_ms > late_ms) late.push_back(&h);
    }
    print_list(trace, "Longest handlers\n      at [s]  length [us] late [ms]", std::move(all),
               [&](auto* a, auto* b) { return length(a) > length(b); });
    print_list(trace, "Latest timeouts\n      at [s]  length [us] late [ms]", std::move(late),
               [](auto* a, auto* b) { return a->late_ms > b->late_ms; });
}
