// SPDX-License-Identifier: MIT
//
// Events from one poster to one taker, and round trips between two takers on one core, measured beside what else an
// application could use. The cost of crossing between cores drifts within seconds, so the contenders take turns in
// random order and the medians are compared.
//
// The library's queue is bounded by its pool: a lone waiter holds 334 events, and a poster that is refused yields and
// tries again, as an application would. The peers run twice, as they are (unbounded) and with the same limit, which
// takes a counter that poster and taker share. "events_one_core" is the same with both threads on one core.
// "events_p999" is no rate: with bursts of 20 beside a busy thread on one core, one event in a thousand waits longer
// for its handler.
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include <QCoreApplication>
#include <QEvent>
#include <QSemaphore>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <linux/futex.h>
#include <memory>
#include <mutex>
#include <sched.h>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>
#ifdef KAV_PEER_ASIO
#include <asio.hpp>
#endif
#ifdef KAV_PEER_LIBUV
#include <uv.h>
#endif

namespace {

constexpr int events_per_run = 200000, trips_per_run = 5000;
constexpr int in_flight_limit = 334;

using Clock = std::chrono::steady_clock;
double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

/// What the handling of an event costs the taker: count it, let a bounded poster see now and then how far it is, tell
/// the end.
class Counter {
public:
    explicit Counter(int wanted) : _wanted(wanted) {}
    void handled() {
        if (++_count % published_each == 0) _handled.store(_count, std::memory_order_release);
        if (_count == _wanted) _done.release();
    }
    bool full(int posted) const { return posted - _handled.load(std::memory_order_acquire) >= in_flight_limit; }
    void wait_until_half(int posted) const {
        while (posted - _handled.load(std::memory_order_acquire) > in_flight_limit / 2) sched_yield();
    }
    void wait_done() { _done.acquire(); }

private:
    static constexpr int published_each = 16;
    const int _wanted;
    int _count = 0;
    alignas(64) std::atomic<int> _handled{0};
    alignas(64) QSemaphore _done;
};

/// A taker: a thread with an inbox, as one of the contenders makes it. `on_event` runs on its thread.
class Taker {
public:
    explicit Taker(std::function<void()> f) : on_event(std::move(f)) {}
    virtual ~Taker() = default;
    virtual bool post() = 0; ///< false when refused

protected:
    const std::function<void()> on_event;
};

class Diner_taker : public Taker, public Diner::Protection {
public:
    explicit Diner_taker(std::function<void()> f) : Taker(std::move(f)) {
        // Priority 0: an ordinary thread, as those of the peers are.
        init(Diner_info_list::get(), nullptr, Descriptor("BENCH", 0), 0, 64, false, false);
        start();
        while (get_state() != state_run) sched_yield();
    }
    ~Diner_taker() override { terminate(true); }
    bool post() override { return waiter.send_event({1026, 1, 0}, false, false) == 0; }
    void handle_event(waiter_event&) override { on_event(); }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;
};

/// The waiter alone, without what a diner does around it.
class Waiter_taker : public Taker {
public:
    explicit Waiter_taker(std::function<void()> f) : Taker(std::move(f)) {
        _waiter.init(&_modules);
        _thread = std::thread([this] {
            waiter_event e;
            for (;;) {
                _waiter.get_event(&e);
                if (e.module_id == 0) return;
                on_event();
            }
        });
    }
    ~Waiter_taker() override {
        _waiter.send_event({0, -1, 0}, false, false);
        _thread.join();
    }
    bool post() override { return _waiter.send_event({1026, 1, 0}, false, false) == 0; }

private:
    module_man _modules;
    waiter_descriptor _waiter;
    std::thread _thread;
};

/// Posted Qt events with the dispatcher that Qt takes by itself (GLib's) or with its own.
template <bool with_glib>
class Qt_taker : public Taker, private QObject {
public:
    explicit Qt_taker(std::function<void()> f) : Taker(std::move(f)) {
        qputenv("QT_NO_GLIB", with_glib ? "" : "1"); // read when the thread makes its dispatcher
        moveToThread(&_thread);
        _thread.start();
    }
    ~Qt_taker() override {
        _thread.quit();
        _thread.wait();
    }
    bool post() override {
        QCoreApplication::postEvent(this, new QEvent(QEvent::User));
        return true;
    }

private:
    bool event(QEvent* e) override {
        if (e->type() != QEvent::User) return QObject::event(e);
        on_event();
        return true;
    }
    QThread _thread;
};

#ifdef KAV_PEER_ASIO
class Asio_taker : public Taker {
public:
    explicit Asio_taker(std::function<void()> f) : Taker(std::move(f)) {
        _thread = std::thread([this] { _context.run(); });
    }
    ~Asio_taker() override {
        _work.reset();
        _thread.join();
    }
    bool post() override {
        asio::post(_context, [this] { on_event(); });
        return true;
    }

private:
    asio::io_context _context{1};
    asio::executor_work_guard<asio::io_context::executor_type> _work{_context.get_executor()};
    std::thread _thread;
};
#endif

/// The simplest queue of one's own, and a thread; how that is woken is up to the derived class. 0 ends it.
class Queue_taker : public Taker {
public:
    using Taker::Taker;
    bool post() override {
        put(1);
        return true;
    }

protected:
    void put(int e) {
        {
            std::lock_guard lock(_mutex);
            _queue.push_back(e);
        }
        wake();
    }
    virtual void wake() = 0;
    void end() {
        put(0);
        _thread.join();
    }
    std::mutex _mutex;
    std::deque<int> _queue;
    std::thread _thread;
};

#ifdef KAV_PEER_LIBUV
/// libuv wakes a loop but has no queue: what its users put beside it.
class Libuv_taker : public Queue_taker {
public:
    explicit Libuv_taker(std::function<void()> f) : Queue_taker(std::move(f)) {
        uv_loop_init(&_loop);
        uv_async_init(&_loop, &_wake, [](uv_async_t* a) { static_cast<Libuv_taker*>(a->data)->take(); });
        _wake.data = this;
        _thread = std::thread([this] { uv_run(&_loop, UV_RUN_DEFAULT); });
    }
    ~Libuv_taker() override {
        end();
        uv_loop_close(&_loop);
    }

private:
    void wake() override { uv_async_send(&_wake); }
    void take() {
        for (std::deque<int> all;; all.clear()) {
            {
                std::lock_guard lock(_mutex);
                all.swap(_queue);
            }
            if (all.empty()) return;
            for (int e : all) {
                if (e == 0) return uv_close(reinterpret_cast<uv_handle_t*>(&_wake), nullptr);
                on_event();
            }
        }
    }
    uv_loop_t _loop;
    uv_async_t _wake;
};
#endif

class Condition_taker : public Queue_taker {
public:
    explicit Condition_taker(std::function<void()> f) : Queue_taker(std::move(f)) {
        _thread = std::thread([this] {
            for (std::unique_lock lock(_mutex);;) {
                _pending.wait(lock, [this] { return !_queue.empty(); });
                const int e = _queue.front();
                _queue.pop_front();
                if (e == 0) return;
                lock.unlock();
                on_event();
                lock.lock();
            }
        });
    }
    ~Condition_taker() override { end(); }

private:
    void wake() override { _pending.notify_one(); }
    std::condition_variable _pending;
};

/// [s] for events_per_run events.
template <class T>
double throughput(bool bounded) {
    Counter counter(events_per_run);
    T taker([&] { counter.handled(); });
    const auto start = Clock::now();
    for (int i = 0; i < events_per_run; ++i) {
        if (bounded && i % 16 == 0 && counter.full(i)) counter.wait_until_half(i);
        while (!taker.post()) sched_yield();
    }
    counter.wait_done();
    return seconds_since(start);
}

/// Keeps the calling thread, and the threads that it makes, on one core.
class Pinned {
public:
    Pinned() {
        sched_getaffinity(0, sizeof _before, &_before);
        cpu_set_t one;
        CPU_ZERO(&one);
        for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (!CPU_ISSET(cpu, &_before)) continue;
            CPU_SET(cpu, &one);
            break;
        }
        sched_setaffinity(0, sizeof one, &one);
    }
    ~Pinned() { sched_setaffinity(0, sizeof _before, &_before); }

private:
    cpu_set_t _before;
};

template <class T>
double throughput_on_one_core(bool) {
    Pinned pinned;
    return throughput<T>(false);
}

/// [s] for trips_per_run trips there and back.
template <class T>
double round_trips(bool) {
    Pinned pinned;
    Counter counter(trips_per_run);
    std::unique_ptr<T> near;
    int left = trips_per_run;
    T far([&] { near->post(); });
    near = std::make_unique<T>([&] {
        if (--left > 0) far.post();
        counter.handled();
    });
    const auto start = Clock::now();
    far.post();
    counter.wait_done();
    return seconds_since(start);
}

/// From post to handler, the thousandth part of which takes longer [s]: bursts beside a busy thread, all on one core.
template <class T>
double late_in_a_thousand(bool) {
    constexpr size_t bursts = 4000, in_burst = 20;
    Pinned pinned;
    std::atomic<bool> over{false};
    std::thread busy([&] {
        while (!over) benchmark::DoNotOptimize(over);
    });
    std::vector<Clock::time_point> posted(bursts * in_burst);
    std::vector<double> late;
    late.reserve(posted.size());
    Counter counter(static_cast<int>(posted.size()));
    {
        T taker([&] {
            late.push_back(seconds_since(posted[late.size()])); // they come in order
            counter.handled();
        });
        for (size_t i = 0; i < posted.size(); ++i) {
            if (i % in_burst == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
            posted[i] = Clock::now();
            while (!taker.post()) sched_yield();
        }
        counter.wait_done();
    }
    over = true;
    busy.join();
    const auto at = late.begin() + static_cast<long>(late.size() - late.size() / 1000);
    std::nth_element(late.begin(), at, late.end());
    return *at;
}

class Futex_gate {
public:
    void open() {
        _open.store(1, std::memory_order_release);
        syscall(SYS_futex, &_open, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
    void pass() {
        while (_open.exchange(0, std::memory_order_acquire) == 0)
            syscall(SYS_futex, &_open, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    }

private:
    alignas(64) std::atomic<int> _open{0};
};

/// The least that two threads need to wake each other.
double futex_round_trips(bool) {
    Pinned pinned;
    Futex_gate there, back;
    std::thread far([&] {
        for (int i = 0; i < trips_per_run; ++i) {
            there.pass();
            back.open();
        }
    });
    const auto start = Clock::now();
    for (int i = 0; i < trips_per_run; ++i) {
        there.open();
        back.pass();
    }
    const double took = seconds_since(start);
    far.join();
    return took;
}

void add(const std::string& name, int items, double (*run)(bool), bool bounded) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](benchmark::State& state) {
                                     for (auto _ : state) state.SetIterationTime(run(bounded));
                                     state.SetItemsProcessed(state.iterations() * items);
                                 })
        ->UseManualTime()
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
}

template <class T>
void add_peer(const std::string& name) {
    add("events/" + name, events_per_run, throughput<T>, false);
    add("events_334_in_flight/" + name, events_per_run, throughput<T>, true);
    add("events_one_core/" + name, events_per_run, throughput_on_one_core<T>, false);
    add("events_p999/" + name, 1, late_in_a_thousand<T>, false);
    add("round_trip/" + name, trips_per_run, round_trips<T>, false);
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    add("events/diner", events_per_run, throughput<Diner_taker>, false);
    add("events/waiter", events_per_run, throughput<Waiter_taker>, false);
    add("events_one_core/diner", events_per_run, throughput_on_one_core<Diner_taker>, false);
    add("events_p999/diner", 1, late_in_a_thousand<Diner_taker>, false);
    add("round_trip/diner", trips_per_run, round_trips<Diner_taker>, false);
    add("round_trip/waiter", trips_per_run, round_trips<Waiter_taker>, false);
    add("round_trip/futex", trips_per_run, futex_round_trips, false);
    add_peer<Qt_taker<true>>("qt");
    add_peer<Qt_taker<false>>("qt_no_glib");
#ifdef KAV_PEER_ASIO
    add_peer<Asio_taker>("asio");
#endif
#ifdef KAV_PEER_LIBUV
    add_peer<Libuv_taker>("libuv");
#endif
    add_peer<Condition_taker>("mutex_and_condition");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
