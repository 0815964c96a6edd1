// SPDX-License-Identifier: MIT
//
// What diners cost as there are more of them: to make and start one, to post an event to each and have it handled, and
// to end it; beside a plain QThread with an event loop. Each row has N of them; time for one, and blocks and bytes of
// the heap for one.
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include <QCoreApplication>
#include <QEvent>
#include <QSemaphore>
#include <QThread>
#include <benchmark/benchmark.h>
#include <chrono>
#include <malloc.h>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double heap_bytes() {
    const struct mallinfo2 all = mallinfo2();
    return static_cast<double>(all.uordblks + all.hblkhd);
}

class Worker : public Diner::Protection {
public:
    explicit Worker(QSemaphore& handled) : _handled(handled) {
        init(Diner_info_list::get(), Descriptor("BENCH", 0));
        start();
    }
    ~Worker() override { terminate(true); }
    void post() { waiter.send_event({1026, 1, 0}, false, false); }

private:
    void handle_event(waiter_event&) override { _handled.release(); }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;
    QSemaphore& _handled;
};

class Qt_worker : private QObject {
public:
    explicit Qt_worker(QSemaphore& handled) : _handled(handled) {
        moveToThread(&_thread);
        _thread.start();
    }
    ~Qt_worker() override {
        _thread.quit();
        _thread.wait();
    }
    void post() { QCoreApplication::postEvent(this, new QEvent(QEvent::User)); }

private:
    bool event(QEvent* e) override {
        if (e->type() != QEvent::User) return QObject::event(e);
        _handled.release();
        return true;
    }
    QSemaphore& _handled;
    QThread _thread;
};

enum Phase { begin, post, end };

template <class W, Phase phase>
void workers(benchmark::State& state) {
    const auto n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        QSemaphore handled;
        std::vector<std::unique_ptr<W>> all(static_cast<size_t>(n));
        const double heap_before = heap_bytes();
        auto at = Clock::now();
        double taken[3];
        const auto lap = [&](Phase p) {
            const auto now = Clock::now();
            taken[p] = std::chrono::duration<double>(now - at).count();
            at = now;
        };
        const auto post_all = [&] {
            for (auto& w : all) w->post();
            handled.acquire(n);
        };
        for (auto& w : all) w = std::make_unique<W>(handled);
        post_all(); // all run
        lap(begin);
        state.counters["heap_bytes"] = (heap_bytes() - heap_before) / n;
        post_all();
        lap(post);
        all.clear();
        lap(end);
        state.SetIterationTime(taken[phase]);
    }
    state.SetItemsProcessed(state.iterations() * n);
}

template <class W>
void add(const char* name) {
    const std::pair<const char*, void (*)(benchmark::State&)> phases[] = {
        {"begin", workers<W, begin>}, {"post", workers<W, post>}, {"end", workers<W, end>}};
    for (const auto& [phase, run] : phases)
        benchmark::RegisterBenchmark((std::string("diners_") + phase + "/" + name).c_str(), run)
            ->RangeMultiplier(10)
            ->Range(1, 1000)
            ->UseManualTime()
            ->Iterations(1)
            ->Unit(benchmark::kMicrosecond);
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    qputenv("QT_NO_GLIB", "1"); // with GLib's dispatcher a thousand threads need three thousand descriptors
    add<Worker>("ours");
    add<Qt_worker>("qt");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
