// SPDX-License-Identifier: MIT
//
// What a thread pays to log a line of 40 characters through a logger with a thread of its own, beside another such
// logger; and how fast the history is replayed.
//
// Flood: lines as fast as they come, for a while, so that both lose text: ours what does not fit into its ring, the
// peer, asynchronous and told to overrun, the oldest of its queue, which has as much memory as our ring: 10 lines where
// ours holds 102, or 8192, as many as the peer takes by itself, where ours holds 85,000. "printed_in_ms" is how many
// lines came out whole in a millisecond of the flood, "printed" their share: who takes a line in a sixth of the time is
// offered six times as many. Burst: 32 lines, then nothing until they are printed, with room for all. The contenders
// take turns and the medians are compared. The loggers' threads are ordinary ones; the rows with realtime:1 show what
// Buffered_logger::init(module_man&) makes where the process has the right to real-time priority: a thread that takes
// the processor from the caller at each line.
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
#endif

namespace {

const char line[] = "1700000000.500 radio: 17 frames, 0 lost\n";
static_assert(sizeof line == 41);

constexpr int burst_lines = 32, bursts = 200, rounds = 5;
constexpr std::chrono::milliseconds flood_time(50);

using Clock = std::chrono::steady_clock;

std::string scratch_file() { return (std::filesystem::temp_directory_path() / "kav-logger-bench.log").string(); }

/// A logger under test: log a line; wait until all are printed.
struct Contender {
    std::function<void()> log;
    std::function<void(unsigned lines)> settle; ///< `lines`: logged since the last time
};

class Ours {
public:
    Ours(bool realtime, size_t memory) : _ring(memory) {
        Debug_print::debug_file = fopen(scratch_file().c_str(), "w");
        _logger = std::make_unique<Buffered_logger>(_ring.data(), static_cast<uint32_t>(memory));
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
    std::vector<unsigned char> _ring;
    std::unique_ptr<Buffered_logger> _logger;
    uint32_t _events = 0;
};

#ifdef KAV_PEER_SPDLOG
class Peer {
public:
    explicit Peer(size_t memory) {
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(scratch_file(), true);
        _pool = std::make_shared<spdlog::details::thread_pool>(
            std::max<size_t>(memory / sizeof(spdlog::details::async_msg), 1), 1);
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

struct Outcome {
    double ns = 0;     ///< that a call took its caller
    int64_t lines = 0; ///< that were logged
};

/// So many callers log 32 lines and pause until they are printed; or they log for a while without a pause. Nobody else
/// is awake meanwhile but the logger.
Outcome run(const Contender& c, int threads, bool burst) {
    std::vector<QSemaphore> begin(static_cast<size_t>(threads));
    QSemaphore end;
    std::atomic<int64_t> spent{0}, logged{0};
    const int times = burst ? bursts : 1;
    std::vector<std::thread> callers;
    for (QSemaphore& own_begin : begin)
        callers.emplace_back([&] {
            for (int r = 0; r < times; ++r) {
                own_begin.acquire();
                const auto start = Clock::now();
                auto now = start;
                int64_t lines = 0;
                do {
                    for (int i = 0; i < burst_lines; ++i) c.log();
                    lines += burst_lines;
                    now = Clock::now();
                } while (!burst && now - start < flood_time);
                spent += std::chrono::nanoseconds(now - start).count();
                logged += lines;
                end.release();
            }
        });
    for (int64_t before = 0, r = 0; r < times; ++r, before = logged) {
        for (QSemaphore& b : begin) b.release();
        end.acquire(threads);
        c.settle(static_cast<unsigned>(logged - before));
    }
    for (auto& t : callers) t.join();
    return {static_cast<double>(spent) / static_cast<double>(logged), logged};
}

/// The lines that stand whole in the file.
int64_t printed_lines() {
    std::ifstream file(scratch_file());
    int64_t whole = 0;
    for (std::string read; std::getline(file, read);) whole += read + '\n' == line;
    return whole;
}

double median(std::vector<double> v) {
    std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
    return v[v.size() / 2];
}

/// Arguments: threads, burst, realtime, memory [KiB] of each logger's queue.
void append_line(benchmark::State& state) {
    const auto threads = static_cast<int>(state.range(0));
    const bool burst = state.range(1) != 0, realtime = state.range(2) != 0;
    const auto memory = static_cast<size_t>(state.range(3)) << 10;
    std::vector<double> ours, peers, ratios, printed, peer_printed, share, peer_share;
    const auto note = [&](Outcome o, std::vector<double>& ns, std::vector<double>& in_ms, std::vector<double>& of_all) {
        ns.push_back(o.ns);
        const auto lines = static_cast<double>(printed_lines());
        in_ms.push_back(lines / std::chrono::duration<double, std::milli>(flood_time).count());
        of_all.push_back(lines / static_cast<double>(o.lines));
    };
    for (auto _ : state) {
        for (int r = 0; r < rounds; ++r) {
            Outcome o;
            {
                Ours logger(realtime, memory);
                o = run(logger.contender(), threads, burst);
            }
            note(o, ours, printed, share);
#ifdef KAV_PEER_SPDLOG
            {
                Peer peer(memory);
                o = run(peer.contender(), threads, burst);
            }
            note(o, peers, peer_printed, peer_share);
            ratios.push_back(ours.back() / peers.back());
#endif
        }
    }
    std::filesystem::remove(scratch_file());
    const auto tell = [&](const char* what, const std::vector<double>& v) {
        if (!v.empty()) state.counters[what] = median(v);
    };
    tell("ns", ours);
    tell("peer_ns", peers);
    tell("ratio", ratios);
    tell("printed", share);
    tell("peer_printed", peer_share);
    if (burst) return;
    tell("printed_in_ms", printed);
    tell("peer_printed_in_ms", peer_printed);
}
BENCHMARK(append_line)
    ->ArgNames({"threads", "burst", "realtime", "KiB"})
    ->ArgsProduct({{1, 2, 4, 8}, {0}, {0}, {4, 3328}})
    ->ArgsProduct({{1, 2, 4, 8}, {1}, {0}, {128}})
    ->ArgsProduct({{1, 4}, {0}, {1}, {4}})
    ->ArgsProduct({{1, 4}, {1}, {1}, {128}})
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
