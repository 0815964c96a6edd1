// SPDX-License-Identifier: MIT
//
// Events from one poster to one taker, and round trips between two takers on one core, measured beside what else an
// application could use. The cost of crossing between cores drifts within seconds, so the contenders take turns in
// random order and the medians are compared.
//
// The library's queue is bounded by its pool: a lone waiter holds 334 events, and a poster that is refused yields until
// half of them are handled. The peers run twice, as they are (unbounded) and with the same limit.
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include <QCoreApplication>
#include <QEvent>
#include <QThread>
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <linux/futex.h>
#include <map>
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

namespace {

constexpr int events_per_run = 1000000, trips_per_run = 20000;
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

/// The simplest queue of one's own.
class Condition_taker : public Taker {
public:
    explicit Condition_taker(std::function<void()> f) : Taker(std::move(f)) {
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
    ~Condition_taker() override {
        put(0);
        _thread.join();
    }
    bool post() override {
        put(1);
        return true;
    }

private:
    void put(int e) {
        {
            std::lock_guard lock(_mutex);
            _queue.push_back(e);
        }
        _pending.notify_one();
    }
    std::mutex _mutex;
    std::condition_variable _pending;
    std::deque<int> _queue;
    std::thread _thread;
};

/// [s] for events_per_run events.
template <class T>
double throughput(bool bounded) {
    Counter counter(events_per_run);
    T taker([&] { counter.handled(); });
    const auto start = Clock::now();
    for (int i = 0; i < events_per_run; ++i) {
        if (bounded && i % 16 == 0 && counter.full(i)) counter.wait_until_half(i);
        while (!taker.post()) counter.wait_until_half(i);
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

/// Prints the usual table and remembers the medians [s for one event or trip].
class Reporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.aggregate_name == "median") medians[r.run_name.function_name] = r.real_accumulated_time;
        }
    }
    std::map<std::string, double> medians;
};

void add(const std::string& name, int items, double (*run)(bool), bool bounded) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](benchmark::State& state) {
                                     for (auto _ : state) state.SetIterationTime(run(bounded));
                                     state.SetItemsProcessed(state.iterations() * items);
                                 })
        ->UseManualTime()
        ->Iterations(1)
        ->Repetitions(11)
        ->ReportAggregatesOnly()
        ->Unit(benchmark::kMillisecond);
}

template <class T>
void add_peer(const std::string& name) {
    add("events/" + name, events_per_run, throughput<T>, false);
    add("events_334_in_flight/" + name, events_per_run, throughput<T>, true);
    add("round_trip/" + name, trips_per_run, round_trips<T>, false);
}

/// How many times `other`'s median time is `ours`.
void compare(const Reporter& reporter, const char* what, const std::string& ours) {
    const auto base = reporter.medians.find(ours);
    if (base == reporter.medians.end()) return;
    std::printf("%s: time of each over ours (%s)\n", what, ours.c_str());
    const std::string group = ours.substr(0, ours.find('/'));
    for (const auto& [name, time] : reporter.medians) {
        if (name.compare(0, group.size(), group) == 0)
            std::printf("  %-40s %6.2f\n", name.c_str(), time / base->second);
    }
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    add("events/diner", events_per_run, throughput<Diner_taker>, false);
    add("events/waiter", events_per_run, throughput<Waiter_taker>, false);
    add("round_trip/diner", trips_per_run, round_trips<Diner_taker>, false);
    add("round_trip/waiter", trips_per_run, round_trips<Waiter_taker>, false);
    add("round_trip/futex", trips_per_run, futex_round_trips, false);
    add_peer<Qt_taker<true>>("qt");
    add_peer<Qt_taker<false>>("qt_no_glib");
#ifdef KAV_PEER_ASIO
    add_peer<Asio_taker>("asio");
#endif
    add_peer<Condition_taker>("mutex_and_condition");

    std::vector<char*> args(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    args.insert(args.begin() + 1, interleave);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    compare(reporter, "Throughput", "events/diner");
    compare(reporter, "Round trip on one core", "round_trip/diner");
    return 0;
}
