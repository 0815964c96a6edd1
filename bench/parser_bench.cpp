// SPDX-License-Identifier: MIT
//
// The stream parser on what a receiver sends, from a stream that has all of it in memory, beside the machine's memcpy.
// "of_memcpy" is the share of the bytes that memcpy moves in the same time, of as many bytes as the frames are: both
// lie in the cache. Rows with lock:1 have the lock that threaded streams have.
#include "glue/vorn/Vorn_checkers.h"
#include "glue/vorn/Vorn_message.h"
#include "glue/vorn/Vorn_parser.h"
#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

/// Gives the same bytes again and again, `portion` bytes at a time.
class Memory_stream : public Data_stream {
public:
    Memory_stream(std::string bytes, size_t portion) : _bytes(std::move(bytes)), _portion(portion) {}
    bool get_data(int n) override {
        if (!on_demand) return false;
        const uint32_t before = buffer.used();
        while (buffer.room() > 0 && buffer.used() - before < static_cast<uint32_t>(n)) read();
        return buffer.used() - before >= static_cast<uint32_t>(n);
    }
    void read() {
        const size_t n = std::min(_portion, _bytes.size() - _next);
        _next += buffer.put(reinterpret_cast<const unsigned char*>(_bytes.data()) + _next, static_cast<uint32_t>(n));
        if (_next == _bytes.size()) _next = 0;
    }
    unsigned _write(const unsigned char*, unsigned) override { return 0; }

    bool on_demand = true;

private:
    const std::string _bytes;
    const size_t _portion;
    size_t _next = 0;
};

double cpu_time() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

/// [bytes/s] of copies of 4200 bytes, which is what a stream's buffer holds, the best of some.
double memcpy_rate() {
    static const double rate = [] {
        std::vector<char> from(4200, 1), to(from.size(), 2);
        constexpr int copies = 20000;
        double best = 0;
        for (int i = 0; i < 20; ++i) {
            const double start = cpu_time();
            for (int k = 0; k < copies; ++k) {
                memcpy(to.data(), from.data(), from.size());
                benchmark::DoNotOptimize(to.data());
                benchmark::ClobberMemory();
            }
            best = std::max(best, copies * static_cast<double>(from.size()) / (cpu_time() - start));
        }
        return best;
    }();
    return rate;
}

/// Counts packets and bytes per second of processor time, and the share of the machine's memcpy that the bytes make.
class Meter {
public:
    explicit Meter(benchmark::State& state) : _state(state) { memcpy_rate(); }
    void start() { _start = cpu_time(); }
    void stop(double packets, double bytes) {
        const double taken = cpu_time() - _start;
        _state.counters["packets/s"] = packets / taken;
        _state.counters["bytes/s"] = bytes / taken;
        _state.counters["of_memcpy"] = bytes / taken / memcpy_rate();
        _state.counters["memcpy/s"] = memcpy_rate();
    }

private:
    benchmark::State& _state;
    double _start = 0;
};

/// 100 frames of `total` bytes that the checkers accept, each with CR LF.
std::string frames(int total) {
    std::string all;
    for (int i = 0; i < 100; ++i) {
        std::vector<unsigned char> frame(static_cast<size_t>(total));
        for (auto& byte : frame) byte = static_cast<unsigned char>(i + (&byte - frame.data()) * 7);
        Vorn_message msg(frame.data(), static_cast<uint32_t>(total));
        msg.setup('E' | 'L' << 8, static_cast<unsigned>(total));
        msg.set_checksum();
        all.append(frame.begin(), frame.end()).append("\r\n");
    }
    return all;
}

enum Checked { unchecked, by_length, by_checksum };

/// Arguments: length of the frames, which checker, and whether the stream has a lock.
void parse_frames(benchmark::State& state) {
    const auto total = static_cast<int>(state.range(0));
    Memory_stream stream(frames(total), SIZE_MAX);
    Vorn_length_checker length_checker;
    Vorn_checksum_checker checksum_checker;
    Mutex lock;
    if (state.range(2)) stream.stream_lock = &lock;
    Vorn_parser parser(&stream, false);
    if (state.range(1) == by_length) parser.set_checker(&length_checker);
    if (state.range(1) == by_checksum) parser.set_checker(&checksum_checker);
    unsigned char packet[8192];
    Meter meter(state);
    double packets = 0;
    meter.start();
    for (auto _ : state) {
        for (int i = 0; i < 100; ++i) {
            if (parser.get_packet(packet, sizeof packet) != total + 1) return state.SkipWithError("not a frame");
        }
        benchmark::ClobberMemory();
        packets += 100;
    }
    meter.stop(packets, packets * (total + 2));
}
BENCHMARK(parse_frames)
    ->ArgNames({"length", "checker", "lock"})
    ->ArgsProduct({{40}, {unchecked, by_length, by_checksum}, {0, 1}})
    ->ArgsProduct({{10, 4100}, {unchecked}, {0, 1}});

/// A threaded stream as bytes trickle in: `get_packet` is called after each read, mostly for nothing. Arguments: bytes
/// per read, and whether they are frames or a stream without line ends.
void trickle(benchmark::State& state) {
    const auto read = static_cast<size_t>(state.range(0));
    const bool noise = state.range(1) != 0;
    Memory_stream stream(noise ? std::string(4200, '\x01') : frames(40), read);
    Mutex lock;
    stream.stream_lock = &lock;
    stream.on_demand = false;
    Vorn_parser parser(&stream, false);
    unsigned char packet[8192];
    Meter meter(state);
    double calls = 0;
    meter.start();
    for (auto _ : state) {
        stream.read();
        benchmark::DoNotOptimize(parser.get_packet(packet, sizeof packet));
        ++calls;
    }
    meter.stop(calls, calls * static_cast<double>(read));
}
BENCHMARK(trickle)->ArgNames({"read", "noise"})->ArgsProduct({{1, 10, 100, 1000}, {0}})->ArgsProduct({{1, 30}, {1}});

} // namespace

BENCHMARK_MAIN();
