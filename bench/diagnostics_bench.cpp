// SPDX-License-Identifier: MIT
//
// Trouble codes: what building and reading a DM1 of 250 codes costs beside a plain copy of its 1002 bytes and the codec
// alone, and what a thread pays for saying that a code is active beside posting events to a diner. The column `heap` is
// heap blocks per call.
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/jin/JIN_memory_bus.h"
#include <atomic>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sched.h>

namespace {
std::atomic<long> blocks{0};
}

void* operator new(size_t n) {
    blocks.fetch_add(1, std::memory_order_relaxed);
    if (void* p = malloc(n)) return p;
    abort();
}
void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }

namespace {

using namespace Trouble_code_messages;

constexpr unsigned num_codes = 250, length = 2 + 4 * num_codes;

/// Counts the heap blocks of a run.
class Blocks {
public:
    explicit Blocks(benchmark::State& state) : _state(state), _before(blocks) {}
    ~Blocks() {
        _state.counters["heap"] =
            benchmark::Counter(static_cast<double>(blocks - _before), benchmark::Counter::kAvgIterations);
    }

private:
    benchmark::State& _state;
    const long _before;
};

Trouble_code code(unsigned i) { return {1000 + 37 * i, static_cast<uint8_t>(i % 32), 5, false}; }

void copy(benchmark::State& state) {
    unsigned char from[length] = {}, to[length];
    for (auto _ : state) {
        benchmark::DoNotOptimize(memcpy(to, from, sizeof to));
        benchmark::ClobberMemory();
    }
}

void codec_write(benchmark::State& state) {
    Trouble_code codes[num_codes];
    for (unsigned i = 0; i < num_codes; ++i) codes[i] = code(i);
    unsigned char bytes[length];
    for (auto _ : state) {
        for (unsigned i = 0; i < num_codes; ++i) codes[i].write(bytes + 2 + 4 * i);
        benchmark::DoNotOptimize(bytes);
        benchmark::ClobberMemory();
    }
}

void codec_read(benchmark::State& state) {
    unsigned char bytes[length];
    for (unsigned i = 0; i < num_codes; ++i) code(i).write(bytes + 2 + 4 * i);
    for (auto _ : state) {
        benchmark::ClobberMemory();
        for (unsigned i = 0; i < num_codes; ++i) benchmark::DoNotOptimize(Trouble_code::read(bytes + 2 + 4 * i));
    }
}

void fill(Trouble_codes& codes) {
    for (unsigned i = 0; i < num_codes; ++i) codes.set_active(code(i).spn, code(i).fmi);
}

void build_DM1(benchmark::State& state) {
    Trouble_codes codes;
    fill(codes);
    unsigned char bytes[length];
    const Blocks count(state);
    for (auto _ : state) {
        Binary_message m(bytes, length);
        codes.build_DM(m, Trouble_code_table::active, state.range(0) ? Mode::j1939 : Mode::iso);
        benchmark::DoNotOptimize(m.size);
    }
}

void receive_DM1(benchmark::State& state) {
    Trouble_codes codes;
    fill(codes);
    unsigned char bytes[length];
    JIN_message m(pgn_DM1, bytes, length);
    codes.build_DM(m, Trouble_code_table::active, Mode::iso);
    m.source = 128;
    Trouble_code_monitor monitor;
    const Atime now = Atime::now();
    for (int i = 0; i < 2; ++i) monitor.take(m, now); // takes its memory
    const Blocks count(state);
    for (auto _ : state) monitor.take(m, now);
}

/// A diner that does nothing with its events, on its thread.
class Idle : public Diner::Protection {
public:
    Idle() {
        init(Diner_info_list::get(), nullptr, Descriptor("IDLE", 1), 0, 256, false, false);
        start();
    }
    ~Idle() override { terminate(true); }
    void handle_event(waiter_event&) override {}
    void handle_timeout(Timeout&) override {}
};

void two_event_posts(benchmark::State& state) {
    Idle diner;
    const waiter_event e(2000, 1, 0);
    const Blocks count(state);
    for (auto _ : state)
        for (int i = 0; i < 2; ++i)
            while (diner.waiter.send_event(e, false, false) != 0) sched_yield();
}

/// A running manager on a bus, whose thread does what follows from the codes meanwhile.
void set_code(benchmark::State& state) {
    JIN_memory_bus bus;
    JIN_memory_bus::Node node(bus, Diner_info_list::get(), JIN_name(1), 128);
    Diagnostics manager("BENCH");
    manager.init(Diner_info_list::get(), nullptr, 0);
    manager.attach(node);
    manager.start();
    const Blocks count(state);
    unsigned i = 0;
    for (auto _ : state) {
        if (i % 2)
            manager.set_inactive(1000, 3);
        else
            manager.set_active(1000, 3);
        ++i;
    }
}

BENCHMARK(copy)->Name("memcpy of 1002 bytes");
BENCHMARK(codec_write)->Name("codec, 250 codes written");
BENCHMARK(codec_read)->Name("codec, 250 codes read");
BENCHMARK(build_DM1)->Name("DM1 of 250 codes built")->ArgName("lamps")->Arg(0)->Arg(1);
BENCHMARK(receive_DM1)->Name("DM1 of 250 codes received");
BENCHMARK(two_event_posts)->Name("two event posts")->UseRealTime();
BENCHMARK(set_code)->Name("set_active or set_inactive")->UseRealTime();

} // namespace

BENCHMARK_MAIN();
