// SPDX-License-Identifier: MIT
//
// The data store's hot paths against the plain ways of doing the same:
//
//     cds_bench --benchmark_enable_random_interleaving=true --benchmark_repetitions=9 \
//               --benchmark_report_aggregates_only=true
//
// signal: one change that concerns one of N disjoint ranges, at random places. `Look_up` posts to a waiter that drops
// everything, which leaves the search; with `Delivery` the event is queued (taking it out again is not timed). The
// registry's 24,576 bytes hold less than 200 ranges on a 64-bit host, so this program stands in for the registry's
// allocation functions with a larger region; where the compiler bound the library's own, rows with more ranges are
// skipped.
// change: the scan for what differs between two copies of a block.
// stream: the values of 1000 mixed items, written and read.
#include "glue/cds/CDS_events.h"
#include "glue/cds/CDS_items.h"
#include "glue/cds/CDS_remote.h"
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_descriptor.h"
#include "util/Mspace.h"
#include "util/atime.h"
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <time.h>
#include <vector>
#ifdef KAV_PEER_BOOST
#include <boost/icl/interval_map.hpp>
#endif

namespace {

const Mspace& large_space() {
    alignas(16) static unsigned char region[8 << 20];
    static Mspace& space = *new Mspace(region, sizeof region, "cds_bench");
    return space;
}

} // namespace

namespace CDS {
void* Event_recipient::operator new(size_t n) noexcept { return large_space().malloc(static_cast<unsigned>(n)); }
void Event_recipient::operator delete(void* p) { large_space().free(p); }
void* Event_list::operator new(size_t n) noexcept { return large_space().malloc(static_cast<unsigned>(n)); }
void Event_list::operator delete(void* p) { large_space().free(p); }
void* Event_node::operator new(size_t n) noexcept { return large_space().malloc(static_cast<unsigned>(n)); }
void Event_node::operator delete(void* p) { large_space().free(p); }
} // namespace CDS

namespace {

// ---- signal

constexpr int range_size = 8; ///< [bytes]

struct Interest {
    int offset, length;
    waiter_descriptor* waiter;
    event_word_t target;
};

class Ours {
public:
    explicit Ours(module_man& modules) : _head(&modules, 0) { _head.lock(); }
    ~Ours() { _head.unlock(); }
    bool add(const Interest& i) {
        return _head.event_register(i.waiter, i.offset, i.length, CDS::reg_value, static_cast<int>(i.target), nullptr,
                                    nullptr) == 0;
    }
    void signal(int offset, int length) { _head.event_signal(nullptr, nullptr, offset, length, nullptr); }

private:
    CDS::Head _head;
};

/// Every range is looked at, but no more of it than its ends, which lie side by side.
class Linear {
public:
    explicit Linear(module_man& modules) { modules.init_module(&_module, true); }
    bool add(const Interest& i) {
        _ends.push_back({i.offset, i.offset + i.length});
        _who.push_back(i);
        return true;
    }
    void signal(int offset, int length) {
        const int end = offset + length;
        for (size_t i = 0; i < _ends.size(); ++i) {
            // Apart from each other is the usual case, and a sum of two comparisons is no branch.
            if ((_ends[i].begin < end) & (_ends[i].end > offset))
                _who[i].waiter->send_event(waiter_event(_module, 0, _who[i].target), true, false);
        }
    }

private:
    struct Ends {
        int begin, end;
    };
    short _module;
    std::vector<Ends> _ends;
    std::vector<Interest> _who;
};

#ifdef KAV_PEER_BOOST
class Interval_map {
public:
    explicit Interval_map(module_man& modules) { modules.init_module(&_module, true); }
    bool add(const Interest& i) {
        _all.push_back(i);
        _map.set({Interval::right_open(i.offset, i.offset + i.length), &_all.back()});
        return true;
    }
    void signal(int offset, int length) {
        const auto concerned = _map.equal_range(Interval::right_open(offset, offset + length));
        for (auto at = concerned.first; at != concerned.second; ++at)
            at->second->waiter->send_event(waiter_event(_module, 0, at->second->target), true, false);
    }

private:
    using Interval = boost::icl::interval<int>;
    short _module;
    std::deque<Interest> _all;
    boost::icl::interval_map<int, const Interest*> _map;
};
#endif

struct Look_up {
    static constexpr bool enabled = false;
};
struct Delivery {
    static constexpr bool enabled = true;
};

/// Processor time, so that what else runs on the machine counts less.
double thread_seconds() {
    struct timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

template <class Peer, class How>
void signal(benchmark::State& state) {
    constexpr int batch = 128; // what one waiter may queue
    const int n = static_cast<int>(state.range(0));
    auto modules = std::make_unique<module_man>();
    waiter_descriptor waiter;
    waiter.init(modules.get());
    waiter.set_enabled(How::enabled);
    Peer peer(*modules);
    std::mt19937 random(1);
    std::vector<int> order(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) order[static_cast<size_t>(i)] = i;
    std::shuffle(order.begin(), order.end(), random);
    for (int i : order)
        if (!peer.add({i * range_size, range_size, &waiter, static_cast<event_word_t>(i)}))
            return state.SkipWithError("the registry is full");

    int places[batch];
    while (state.KeepRunningBatch(batch)) {
        for (int& place : places) place = static_cast<int>(random() % static_cast<unsigned>(n)) * range_size + 2;
        const double start = thread_seconds();
        for (int place : places) peer.signal(place, 4);
        state.SetIterationTime(thread_seconds() - start);
        waiter.flush_events();
    }
}

#define SIGNAL_BENCH(peer, how)                                                                                        \
    BENCHMARK_TEMPLATE(signal, peer, how)->UseManualTime()->MinTime(0.02)->RangeMultiplier(10)->Range(10, 10000)
SIGNAL_BENCH(Ours, Look_up);
SIGNAL_BENCH(Linear, Look_up);
SIGNAL_BENCH(Ours, Delivery);
SIGNAL_BENCH(Linear, Delivery);
#ifdef KAV_PEER_BOOST
SIGNAL_BENCH(Interval_map, Look_up);
SIGNAL_BENCH(Interval_map, Delivery);
#endif

// ---- items

struct Quiet : CDS::Update_listener {
    void updated(int) override { ++calls; }
    long calls = 0;
};

/// A block of n groups of eight values and an array, about 4 bytes a value: flat, or in nested structs of ten.
class Block {
public:
    struct Group {
        double a;
        int b;
        short c;
        unsigned char d;
        bool e;
        float f;
        unsigned short g[4];
        unsigned int h;
    };
    static constexpr int items_per_group = 8;

    explicit Block(int groups) : data(static_cast<size_t>(groups)), old(data.size()) {
        memset(static_cast<void*>(data.data()), 0, size());
        old = data;
        root = std::make_unique<CDS::Root>(head, "block", data.data(), size(), "");
        head.lock();
    }
    ~Block() { head.unlock(); }
    unsigned size() const { return static_cast<unsigned>(data.size() * sizeof(Group)); }

    void add_values(CDS::Lookup_struct& parent, Group& g) {
        keep(new CDS::Value<double>(parent, "a", g.a));
        keep(new CDS::Value<int>(parent, "b", g.b));
        keep(new CDS::Value<short>(parent, "c", g.c));
        keep(new CDS::Value<unsigned char>(parent, "d", g.d));
        keep(new CDS::Value<bool>(parent, "e", g.e));
        keep(new CDS::Value<float>(parent, "f", g.f));
        keep(new CDS::Array<unsigned short>(parent, "g", g.g));
        keep(new CDS::Value<unsigned int>(parent, "h", g.h, "", &listener));
    }
    Block& flat() {
        for (Group& g : data) add_values(*root, g);
        root->finish();
        return *this;
    }
    Block& nested() {
        nest(*root, 0, data.size());
        root->finish();
        return *this;
    }

    CDS::Head head{nullptr, 0};
    std::vector<Group> data, old;
    std::unique_ptr<CDS::Root> root;
    Quiet listener;

private:
    template <class Item>
    Item& keep(Item* item) {
        _items.emplace_back(item, [](void* p) { delete static_cast<Item*>(p); });
        return *item;
    }
    void nest(CDS::Lookup_struct& parent, size_t first, size_t n) {
        if (n == 1) return add_values(parent, data[first]);
        size_t each = 1;
        while (each * 10 < n) each *= 10;
        for (size_t at = 0; at < n; at += each) {
            const size_t part = std::min(each, n - at);
            auto& inner = keep(new CDS::Struct(parent, "part", &data[first + at],
                                               static_cast<unsigned>(part * sizeof(Group)), "", nullptr));
            nest(inner, first + at, part);
        }
    }

    std::vector<std::unique_ptr<void, void (*)(void*)>> _items;
};

// ---- change scan

constexpr int large = 64 << 10;

void change_none(benchmark::State& state) {
    const std::vector<char> now(large, 5), before = now;
    for (auto _ : state) benchmark::DoNotOptimize(CDS::Compare(now.data(), before.data(), large).done);
    state.SetBytesProcessed(state.iterations() * large);
}
BENCHMARK(change_none);

void change_none_memcmp(benchmark::State& state) {
    const std::vector<char> now(large, 5), before = now;
    for (auto _ : state) benchmark::DoNotOptimize(memcmp(now.data(), before.data(), large));
    state.SetBytesProcessed(state.iterations() * large);
}
BENCHMARK(change_none_memcmp);

/// One changed value at a random place among `range` items: its listener is told.
void change_one(benchmark::State& state, Block& (Block::*build)()) {
    Block block(static_cast<int>(state.range(0)) / Block::items_per_group);
    (block.*build)();
    std::mt19937 random(1);
    for (auto _ : state) {
        auto& changed = block.data[random() % block.data.size()].h;
        changed ^= 1;
        // The writer knows about where it wrote: a window of one group around it is compared, not the whole block.
        const size_t offset =
            static_cast<size_t>(reinterpret_cast<char*>(&changed) - reinterpret_cast<char*>(block.data.data()));
        const char* const before = reinterpret_cast<char*>(block.old.data()) + offset;
        block.root->signal_update(&changed, before, sizeof changed);
        changed ^= 1;
    }
    if (block.listener.calls != state.iterations()) state.SkipWithError("not every change was told");
}
BENCHMARK_CAPTURE(change_one, nested, &Block::nested)->Arg(80)->Arg(800)->Arg(8000);
BENCHMARK_CAPTURE(change_one, flat, &Block::flat)->Arg(80)->Arg(800)->Arg(8000);

// ---- value stream

constexpr int stream_groups = 125; // of 8 items: 1000

void stream_write(benchmark::State& state) {
    Block block(stream_groups);
    block.flat();
    std::vector<char> bytes(block.size() + stream_groups);
    int64_t written = 0;
    for (auto _ : state) {
        CDS::Remote::Send_buffer out(bytes.data(), 0, static_cast<int>(bytes.size()));
        unsigned short start = 0;
        block.root->serialise(out, start);
        benchmark::DoNotOptimize(bytes.data());
        benchmark::ClobberMemory();
        written += out.position - bytes.data();
    }
    state.SetBytesProcessed(written);
}
BENCHMARK(stream_write);

void stream_read(benchmark::State& state) {
    Block block(stream_groups);
    block.flat();
    std::vector<char> bytes(block.size() + stream_groups);
    CDS::Remote::Send_buffer out(bytes.data(), 0, static_cast<int>(bytes.size()));
    unsigned short start = 0;
    block.root->serialise(out, start);
    const int length = static_cast<int>(out.position - bytes.data());
    for (auto _ : state) {
        CDS::Remote::Receive_buffer in(bytes.data(), length);
        benchmark::DoNotOptimize(block.root->deserialise(in, start).ok());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * length);
}
BENCHMARK(stream_read);

/// The stream in `range` slices, each begun where the one before stopped. Compare with stream_write.
void stream_write_paged(benchmark::State& state) {
    Block block(stream_groups);
    block.flat();
    std::vector<char> bytes(block.size() + stream_groups);
    CDS::Remote::Send_buffer whole(bytes.data(), 0, static_cast<int>(bytes.size()));
    unsigned short start = 0;
    block.root->serialise(whole, start);
    const int total = static_cast<int>(whole.position - bytes.data());
    const int page = static_cast<int>((total + state.range(0) - 1) / state.range(0));
    for (auto _ : state) {
        for (int skip = 0; skip < total; skip += page) {
            CDS::Remote::Send_buffer out(bytes.data() + skip, skip, std::min(page, total - skip));
            block.root->serialise(out, start);
        }
        benchmark::DoNotOptimize(bytes.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(stream_write_paged)->Arg(1)->Arg(10)->Arg(100);

} // namespace

BENCHMARK_MAIN();
