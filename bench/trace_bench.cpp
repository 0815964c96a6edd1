// SPDX-License-Identifier: MIT
//
// What tracing costs: a record while it is on, beside what it cannot be had for less (the clock and a copy of as many
// bytes); a post of an event with tracing off and on, to nobody and to a thread that it wakes. The time is that of the
// processor, of the post that wakes somebody the wall clock's.
#include "glue/diner/Trace.h"
#include "glue/diner/waiter_descriptor.h"
#include "util/ticks.h"
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstring>
#include <ctime>
#include <memory>
#include <thread>

namespace {

constexpr unsigned records = 16384;

void record(benchmark::State& state) {
    Trace::start(records);
    int i = 0;
    for (auto _ : state) Trace::instant("mark", ++i);
    Trace::stop();
}
BENCHMARK(record);
BENCHMARK(record)->Threads(2);

void record_off(benchmark::State& state) {
    Trace::stop();
    int i = 0;
    for (auto _ : state) {
        Trace::instant("mark", ++i);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(record_off);

/// The floor with the clock that everybody has.
void chrono_and_memcpy(benchmark::State& state) {
    auto ring = std::make_unique<char[]>(records * 32);
    char bytes[32] = {};
    unsigned at = 0;
    for (auto _ : state) {
        const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
        memcpy(bytes, &now, sizeof now);
        memcpy(&ring[at++ % records * 32], bytes, sizeof bytes);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(chrono_and_memcpy);

void ticks_and_memcpy(benchmark::State& state) {
    auto ring = std::make_unique<char[]>(records * 32);
    char bytes[32] = {};
    unsigned at = 0;
    for (auto _ : state) {
        const uint64_t now = Util::ticks();
        memcpy(bytes, &now, sizeof now);
        memcpy(&ring[at++ % records * 32], bytes, sizeof bytes);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(ticks_and_memcpy);

/// Of this thread: what others take from it does not count.
double processor_seconds() {
    struct timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

/// 320 posts to a waiter that nobody takes from meanwhile; the taking is not counted.
void post(benchmark::State& state, uint32_t kinds) {
    constexpr int burst = 320;
    auto pool = std::make_unique<module_man>();
    waiter_descriptor waiter;
    waiter.init(pool.get());
    Trace::start(records, kinds);
    for (auto _ : state) {
        const double begin = processor_seconds();
        for (int i = 0; i < burst; ++i) waiter.send_event({1026, i, 0}, false, false);
        state.SetIterationTime((processor_seconds() - begin) / burst);
        waiter.flush_events();
    }
    Trace::stop();
}
BENCHMARK_CAPTURE(post, off, 0)->UseManualTime();
BENCHMARK_CAPTURE(post, on, Trace::all_kinds)->UseManualTime();

/// A post that wakes the thread which sleeps at the waiter.
void post_wakes(benchmark::State& state, uint32_t kinds) {
    auto pool = std::make_unique<module_man>();
    waiter_descriptor waiter;
    waiter.init(pool.get());
    std::atomic<int> taken{0};
    std::thread taker([&] {
        for (waiter_event e; e.id != -1; ++taken) waiter.get_event(&e);
    });
    Trace::start(records, kinds);
    int posted = 0;
    for (auto _ : state) {
        while (taken.load() != posted) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::microseconds(150)); // it sleeps again meanwhile
        const uint64_t begin = Util::ticks();
        waiter.send_event({1026, posted++, 0}, false, false);
        state.SetIterationTime(static_cast<double>(Util::ticks() - begin) * Util::ns_per_tick() / 1e9);
    }
    Trace::stop();
    waiter.send_event({1026, -1, 0}, false, false);
    taker.join();
}
BENCHMARK_CAPTURE(post_wakes, off, 0)->UseManualTime()->Iterations(5000);
BENCHMARK_CAPTURE(post_wakes, on, Trace::all_kinds)->UseManualTime()->Iterations(5000);

} // namespace

BENCHMARK_MAIN();
