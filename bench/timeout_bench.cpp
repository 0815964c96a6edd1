// SPDX-License-Identifier: MIT
// Timers of one event loop: what a submission, a removal and a dispatch cost with N pending. Every queue gets the same
// timers with the same expiries in the same order, all from the loop's own thread, and each timer fires once.
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include <QBasicTimer>
#include <QCoreApplication>
#include <QSemaphore>
#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <time.h>
#include <type_traits>
#include <vector>
#ifdef KAV_PEER_ASIO
#include <asio.hpp>
#endif
#ifdef KAV_PEER_LIBUV
#include <uv.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

/// CPU time of this thread [s]: other programs on the machine disturb it less than the time that passes.
double cpu_time() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

/// A running diner's timeouts by its public calls, on its own thread and under its lock as in any handler. A submission
/// posts the wake-up as well. What is due is handled by the diner's own loop.
class Ours : Diner::Protection {
public:
    explicit Ours(size_t n) : _timeouts(n) {
        init(Diner_info_list::get(), Descriptor("BENCH", 0));
        start();
    }
    ~Ours() override { terminate(true); }
    /// Run something in a handler.
    template <class Function>
    void on_loop(Function f) {
        _job = f;
        if (waiter.send_event({1026, 1, 0}, false, false) != 0) abort();
        _done.acquire();
    }
    void begin() {
        _begin = Atime::now();
        _fired = 0;
    }
    void submit(size_t i, int ms) { submit_timeout(_timeouts[i], _begin + ms); }
    void remove(size_t i) { remove_timeout(_timeouts[i]); }
    void flush() {}
    void order() { Diner::_timeouts.next_timeout(); }
    /// [s] that the loop takes for all that is due.
    double dispatch() {
        _all_fired.acquire();
        return _at_end - _at_start;
    }

private:
    void handle_event(waiter_event& e) override {
        if (e.id != 1) return;
        _job();
        _done.release();
        _at_start = cpu_time();
    }
    void handle_timeout(Timeout& t) override {
        remove_timeout(t);
        if (++_fired < _timeouts.size()) return;
        _at_end = cpu_time();
        _all_fired.release();
    }
    using Diner::handle_timeout;
    std::vector<Timeout> _timeouts;
    std::function<void()> _job;
    QSemaphore _done, _all_fired;
    Atime _begin{false};
    size_t _fired = 0;
    double _at_start = 0, _at_end = 0;
};

/// What the peers' loops have in common: they run on the calling thread.
class Loop_here {
public:
    template <class Function>
    void on_loop(Function f) {
        f();
    }
};

#ifdef KAV_PEER_LIBUV
class Libuv : public Loop_here {
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
    double dispatch() {
        const double start = cpu_time();
        for (_fired = 0; _fired < _timers.size();) uv_run(&_loop, UV_RUN_NOWAIT);
        return cpu_time() - start;
    }

private:
    uv_loop_t _loop;
    std::vector<uv_timer_t> _timers;
    size_t _fired = 0;
};
#endif

#ifdef KAV_PEER_ASIO
class Asio : public Loop_here {
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
    double dispatch() {
        const double start = cpu_time();
        for (_fired = 0; _fired < _timers.size();) flush();
        return cpu_time() - start;
    }

private:
    asio::io_context _context{1};
    std::vector<asio::steady_timer> _timers;
    Clock::time_point _begin;
    size_t _fired = 0;
};
#endif

class Qt_timers : QObject, public Loop_here {
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
    double dispatch() {
        const double start = cpu_time();
        for (_fired = 0; _fired < _timers.size();) QCoreApplication::processEvents();
        return cpu_time() - start;
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
        double submitting = 0, removing = 0;
        queue.on_loop([&] {
            queue.begin();
            const double at_start = cpu_time();
            for (size_t i = 0; i < n; ++i) queue.submit(i, due[i]);
            submitting = cpu_time() - at_start;
            // Due while the loop is busy, so that all of them are when it comes to look.
            if (phase == dispatch) std::this_thread::sleep_for(std::chrono::milliseconds(least_ms + spread_ms + 1));
        });
        if (phase == dispatch) {
            state.SetIterationTime(queue.dispatch());
            continue;
        }
        queue.on_loop([&] {
            if (phase == remove_late) queue.order();
            const double at_start = cpu_time();
            for (size_t i : order) queue.remove(i);
            queue.flush();
            removing = cpu_time() - at_start;
        });
        state.SetIterationTime(phase == submit ? submitting : removing);
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
            if (n == 100000 && std::is_same_v<Queue, Qt_timers>) continue; // takes it seconds
            benchmark::RegisterBenchmark((std::string(p.name) + "/" + name).c_str(), p.run)
                ->Arg(n)
                ->UseManualTime()
                ->Iterations(std::clamp(5000 / n, 1, 5))
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
