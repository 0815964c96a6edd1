// SPDX-License-Identifier: MIT
// Timers of one event loop: what a submission, a removal and a dispatch cost with N pending. Every queue gets the same
// timers with the same expiries in the same order, all from the loop's own thread, and each timer fires once.
#include "glue/diner/Diner_protection.h"
#include <QBasicTimer>
#include <QCoreApplication>
#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>
#ifdef KAV_PEER_ASIO
#include <asio.hpp>
#endif
#ifdef KAV_PEER_LIBUV
#include <uv.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

/// A diner's timeouts by its public calls, each with its locks and the wake-up of the diner's thread.
class Ours : Diner::Protection {
public:
    explicit Ours(size_t n) : _timeouts(n) {}
    ~Ours() override { waiter.flush_events(); }
    void begin() {
        waiter.flush_events();
        _begin = Atime::now();
    }
    void submit(size_t i, int ms) { submit_timeout(_timeouts[i], _begin + ms); }
    void remove(size_t i) { remove_timeout(_timeouts[i]); }
    void flush() {}
    void order() { Diner::_timeouts.next_timeout(); }
    size_t dispatch() {
        _fired = 0;
        lock(-1);
        Diner::handle_timeout();
        unlock();
        return _fired;
    }

private:
    void handle_event(waiter_event&) override {}
    void handle_timeout(Timeout& t) override {
        ++_fired;
        remove_timeout(t);
    }
    std::vector<Timeout> _timeouts;
    Atime _begin{false};
    size_t _fired = 0;
};

#ifdef KAV_PEER_LIBUV
class Libuv {
public:
    explicit Libuv(size_t n) : _timers(n) {
        uv_loop_init(&_loop);
        for (uv_timer_t& t : _timers) {
            uv_timer_init(&_loop, &t);
            t.data = this;
        }
    }
    ~Libuv() {
        for (uv_timer_t& t : _timers) uv_close(reinterpret_cast<uv_handle_t*>(&t), nullptr);
        uv_run(&_loop, UV_RUN_DEFAULT);
        uv_loop_close(&_loop);
    }
    void begin() { uv_update_time(&_loop); }
    void submit(size_t i, int ms) {
        uv_timer_start(
            &_timers[i], [](uv_timer_t* t) { ++static_cast<Libuv*>(t->data)->_fired; }, static_cast<uint64_t>(ms), 0);
    }
    void remove(size_t i) { uv_timer_stop(&_timers[i]); }
    void flush() {}
    void order() {}
    size_t dispatch() {
        _fired = 0;
        uv_run(&_loop, UV_RUN_NOWAIT);
        return _fired;
    }

private:
    uv_loop_t _loop;
    std::vector<uv_timer_t> _timers;
    size_t _fired = 0;
};
#endif

#ifdef KAV_PEER_ASIO
class Asio {
public:
    explicit Asio(size_t n) {
        _timers.reserve(n);
        for (size_t i = 0; i < n; ++i) _timers.emplace_back(_context);
    }
    void begin() { _begin = Clock::now(); }
    void submit(size_t i, int ms) {
        _timers[i].expires_at(_begin + std::chrono::milliseconds(ms));
        _timers[i].async_wait([this](const asio::error_code& e) { _fired += !e; });
    }
    void remove(size_t i) { _timers[i].cancel(); }
    /// A removed timer's handler is told so.
    void flush() {
        _context.restart();
        _context.poll();
    }
    void order() {}
    size_t dispatch() {
        _fired = 0;
        flush();
        return _fired;
    }

private:
    asio::io_context _context{1};
    std::vector<asio::steady_timer> _timers;
    Clock::time_point _begin;
    size_t _fired = 0;
};
#endif

class Qt_timers : QObject {
public:
    explicit Qt_timers(size_t n) : _timers(n), _index(n) {}
    void begin() {}
    void submit(size_t i, int ms) {
        _timers[i].start(ms, Qt::PreciseTimer, this);
        const auto id = static_cast<size_t>(_timers[i].timerId());
        if (id >= _index.size()) _index.resize(2 * id);
        _index[id] = i;
    }
    void remove(size_t i) { _timers[i].stop(); }
    void flush() {}
    void order() {}
    size_t dispatch() {
        _fired = 0;
        while (QCoreApplication::processEvents(), _fired < _timers.size()) {
        }
        return _fired;
    }

private:
    void timerEvent(QTimerEvent* e) override {
        ++_fired;
        _timers[_index[static_cast<size_t>(e->timerId())]].stop();
    }
    std::vector<QBasicTimer> _timers;
    std::vector<size_t> _index; ///< by timer id
    size_t _fired = 0;
};

/// CPU time of this thread [s]: other programs on the machine disturb it less than the time that passes.
double cpu_time() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

enum Phase {
    submit,
    remove_early, ///< nothing was due since the submission: what becomes of most timeouts
    remove_late,  ///< the queue is in order because an earlier one was due
    dispatch
};

template <class Queue, Phase phase>
void timers(benchmark::State& state) {
    const auto n = static_cast<size_t>(state.range(0));
    // Due within 50 ms when they are to fire, else in minutes.
    constexpr int least_ms = phase == dispatch ? 1 : 100000, spread_ms = phase == dispatch ? 50 : 1000000;
    std::mt19937 random(1);
    std::vector<int> due(n);
    std::vector<size_t> order(n);
    for (size_t i = 0; i < n; ++i) {
        due[i] = least_ms + static_cast<int>(random() % spread_ms);
        order[i] = i;
    }
    std::shuffle(order.begin(), order.end(), random);

    Queue queue(n);
    for (auto _ : state) {
        queue.begin();
        const double at_start = cpu_time();
        for (size_t i = 0; i < n; ++i) queue.submit(i, due[i]);
        if (phase == dispatch) std::this_thread::sleep_for(std::chrono::milliseconds(least_ms + spread_ms + 1));
        if (phase == remove_late) queue.order();
        const double at_middle = cpu_time();
        if (phase == dispatch) {
            if (queue.dispatch() != n) state.SkipWithError("not every timer fired");
        } else {
            for (size_t i : order) queue.remove(i);
            queue.flush();
        }
        state.SetIterationTime(phase == submit ? at_middle - at_start : cpu_time() - at_middle);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

template <class Queue>
void add(const char* name) {
    const struct {
        const char* name;
        void (*run)(benchmark::State&);
    } phases[] = {{"submit", timers<Queue, submit>},
                  {"remove", timers<Queue, remove_early>},
                  {"remove_late", timers<Queue, remove_late>},
                  {"dispatch", timers<Queue, dispatch>}};
    for (const auto& p : phases) {
        for (int n : {100, 1000, 10000, 100000}) {
            benchmark::RegisterBenchmark((std::string(p.name) + "/" + name).c_str(), p.run)
                ->Arg(n)
                ->UseManualTime()
                ->Iterations(std::clamp(100000 / n, 2, 50))
                ->Repetitions(5)
                ->ReportAggregatesOnly()
                ->Unit(benchmark::kMicrosecond);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    add<Ours>("ours");
#ifdef KAV_PEER_LIBUV
    add<Libuv>("libuv");
#endif
#ifdef KAV_PEER_ASIO
    add<Asio>("asio");
#endif
    add<Qt_timers>("qt");
    benchmark::RunSpecifiedBenchmarks();
}
