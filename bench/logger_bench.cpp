// SPDX-License-Identifier: MIT
//
// What a thread pays to log a line of 40 characters through a logger with a thread of its own, beside another such
// logger; and how fast the history is replayed.
//
// Flood: lines as fast as they come, so that both lose text (ours what does not fit into its ring, the peer what does
// not fit into its queue of 8192 lines); "printed" is the share of the lines that came out whole. Burst: 32 lines, then
// nothing until they are printed. The contenders take turns and the medians are compared. The loggers' threads are
// ordinary ones; the rows with realtime:1 show what Buffered_logger::init(module_man&) makes where the process has the
// right to real-time priority: a thread that takes the processor from the caller at each line.
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diagnostics/Diagnostics_messages.h"
#include "glue/diner/Buffered_logger.h"
#include "glue/diner/Diner_info_list.h"
#include "platform/pcf_host.h"
#include "util/Debug_print.h"
#include <QSemaphore>
#include <algorithm>
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>
#ifdef KAV_PEER_SPDLOG
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#endif

namespace {

const char line[] = "1700000000.500 radio: 17 frames, 0 lost\n";
static_assert(sizeof line == 41);

constexpr int flood_lines = 100000, burst_lines = 32, bursts = 200, rounds = 5;

using Clock = std::chrono::steady_clock;

std::string scratch_file() { return (std::filesystem::temp_directory_path() / "kav-logger-bench.log").string(); }

/// A logger under test: log a line; wait until all are printed.
struct Contender {
    std::function<void()> log;
    std::function<void(unsigned lines)> settle; ///< `lines`: logged since the last time
};

class Ours {
public:
    Ours(bool to_file, bool realtime) {
        Debug_print::debug_file = fopen(to_file ? scratch_file().c_str() : "/dev/null", "w");
        _logger = std::make_unique<Buffered_logger>();
        if (realtime) {
            _logger->init(Diner_info_list::get());
        } else {
            _logger->init(Diner_info_list::get(), nullptr, Diner::Descriptor("LOG0", 0), 0, 2048, false, true);
            _logger->start();
        }
        while (_logger->get_state() != Diner::state_run) sched_yield();
    }
    ~Ours() {
        _logger.reset();
        fclose(Debug_print::debug_file);
        Debug_print::debug_file = stderr;
    }
    Contender contender() {
        return {[this] { _logger->append(line); },
                [this](unsigned lines) {
                    _events += lines;
                    while (_logger->info.event_count != _events) sched_yield();
                }};
    }

private:
    std::unique_ptr<Buffered_logger> _logger;
    uint32_t _events = 0;
};

#ifdef KAV_PEER_SPDLOG
class Peer {
public:
    explicit Peer(bool to_file) {
        std::shared_ptr<spdlog::sinks::sink> sink;
        if (to_file)
            sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(scratch_file(), true);
        else
            sink = std::make_shared<spdlog::sinks::null_sink_mt>();
        _pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
        // It may drop as ours does, so that both measure the caller and not the output.
        _logger =
            std::make_shared<spdlog::async_logger>("bench", sink, _pool, spdlog::async_overflow_policy::overrun_oldest);
        _logger->set_pattern("%v");
    }
    Contender contender() {
        const std::string_view text(line, sizeof line - 2); // it adds the line end
        return {[this, text] { _logger->info(text); },
                [this](unsigned) {
                    while (_pool->queue_size() > 0) sched_yield();
                }};
    }

private:
    std::shared_ptr<spdlog::details::thread_pool> _pool;
    std::shared_ptr<spdlog::async_logger> _logger;
};
#endif

/// [ns] a call takes a caller, with so many of them, `lines` at a time.
double cost(const Contender& c, int threads, int lines, int times) {
    std::atomic<int> ready{0}, round{0}, ended{0};
    std::atomic<int64_t> spent{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < threads; ++t)
        callers.emplace_back([&] {
            ++ready;
            for (int r = 1; r <= times; ++r) {
                while (round < r) sched_yield();
                const auto start = Clock::now();
                for (int i = 0; i < lines; ++i) c.log();
                spent += std::chrono::nanoseconds(Clock::now() - start).count();
                ++ended;
            }
        });
    while (ready < threads) sched_yield();
    for (int r = 1; r <= times; ++r) {
        round = r;
        while (ended < r * threads) sched_yield();
        c.settle(static_cast<unsigned>(threads * lines));
    }
    for (auto& t : callers) t.join();
    return static_cast<double>(spent) / threads / lines / times;
}

/// The share of the lines logged that stand whole in the file.
double printed_share(int logged) {
    std::ifstream file(scratch_file());
    int whole = 0;
    for (std::string read; std::getline(file, read);) whole += read + '\n' == line;
    return static_cast<double>(whole) / logged;
}

double median(std::vector<double> v) {
    std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
    return v[v.size() / 2];
}

/// Arguments: threads, burst, file, realtime.
void append_line(benchmark::State& state) {
    const auto threads = static_cast<int>(state.range(0));
    const bool burst = state.range(1) != 0, to_file = state.range(2) != 0;
    const int lines = burst ? burst_lines : flood_lines / threads, times = burst ? bursts : 1;
    const int logged = threads * lines * times;
    std::vector<double> ours, peers, ratios, printed, peer_printed;
    for (auto _ : state) {
        for (int r = 0; r < rounds; ++r) {
            {
                Ours logger(to_file, state.range(3) != 0);
                ours.push_back(cost(logger.contender(), threads, lines, times));
            }
            if (to_file) printed.push_back(printed_share(logged));
#ifdef KAV_PEER_SPDLOG
            {
                Peer peer(to_file);
                peers.push_back(cost(peer.contender(), threads, lines, times));
            }
            if (to_file) peer_printed.push_back(printed_share(logged));
            ratios.push_back(ours.back() / peers.back());
#endif
        }
    }
    std::filesystem::remove(scratch_file());
    state.counters["ns"] = median(ours);
    if (to_file) state.counters["printed"] = median(printed);
    if (ratios.empty()) return;
    state.counters["peer_ns"] = median(peers);
    if (to_file) state.counters["peer_printed"] = median(peer_printed);
    state.counters["ratio"] = median(ratios);
}
BENCHMARK(append_line)
    ->ArgNames({"threads", "burst", "file", "realtime"})
    ->ArgsProduct({{1, 2, 4, 8}, {0, 1}, {1}, {0}})
    ->ArgsProduct({{1}, {0, 1}, {0}, {0}})
    ->ArgsProduct({{1, 4}, {0, 1}, {1}, {1}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

/// Counts, and tells when the replay is over.
struct Sink : Diagnostic_history {
    void output(unsigned char, unsigned short, unsigned short, unsigned int, unsigned short) override { ++records; }
    void history_finished() override { finished.release(); }
    unsigned records = 0;
    QSemaphore finished;
};

/// Nine files of 240 records, from a warm cache, by the manager's thread.
void replay(benchmark::State& state) {
    constexpr unsigned files = 9, in_file = 240;
    std::string folder = (std::filesystem::temp_directory_path() / "kav-history-XXXXXX").string();
    if (!mkdtemp(folder.data())) return state.SkipWithError("no folder");
    for (unsigned n = 0; n < files; ++n) {
        std::ofstream file(folder + "/H" + std::to_string(n) + ".dat", std::ios::binary);
        for (unsigned i = 0; i < in_file; ++i) {
            unsigned char bytes[Diagnostics_messages::Msg_SP::size_total];
            Diagnostics_messages::build_SP(bytes, static_cast<unsigned char>(i), 287, static_cast<unsigned short>(i),
                                           1700000000 + i, 500);
            file.write(reinterpret_cast<const char*>(bytes), sizeof bytes).put('\n');
        }
    }
    if (!Pcf_host::mount(folder.c_str(), 1 << 20)) return state.SkipWithError("not mounted");
    {
        Diagnostics manager("H");
        manager.init(Diner_info_list::get(), nullptr, 0);
        manager.start();
        Sink sink;
        unsigned replays = 0;
        for (auto _ : state) {
            if (!manager.request_history(&sink)) {
                state.SkipWithError("refused");
                break;
            }
            sink.finished.acquire();
            ++replays;
            // The hook runs while the replay is still the current one.
            manager.lock(-1);
            manager.unlock();
        }
        if (sink.records != replays * files * in_file) state.SkipWithError("records are missing");
        state.SetItemsProcessed(sink.records);
    }
    Pcf_host::unmount();
    std::filesystem::remove_all(folder);
}
BENCHMARK(replay)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
