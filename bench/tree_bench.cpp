// SPDX-License-Identifier: MIT
//
// The tree against its peers, element by element in random order. Peers are interleaved so that a machine that changes
// its speed meanwhile treats all alike, in short runs, of which some are not disturbed:
//
//     tools/benchmarks tree_bench
//
// Every element, and every node of Gnu's, which allocates it on insertion, takes 64 bytes. Each comparison is a call
// through a pointer that the compiler cannot see through. Boost keeps no ranks: given an element it takes it out
// without going down to it, which no tree with ranks can (remove_element); going down by key is what all have in common
// (remove).
#include "util/avl_bstree.h"
#include <algorithm>
#include <benchmark/benchmark.h>
#include <ext/pb_ds/assoc_container.hpp>
#include <ext/pb_ds/tree_policy.hpp>
#include <memory>
#include <random>
#include <time.h>
#include <vector>
#ifdef KAV_PEER_BOOST
#include <boost/intrusive/avl_set.hpp>
#endif

namespace {

class Ours {
public:
    explicit Ours(const std::vector<int>& keys) : _keys(keys), _items(keys.size()) {
        Order order = [](__bsnode const* a, __bsnode const* b) { return three_way(item(a)->key, item(b)->key); };
        benchmark::DoNotOptimize(order);
        _tree.create(order);
        for (size_t i = 0; i < keys.size(); ++i) _items[i].key = keys[i];
    }
    ~Ours() { _tree.flush(); }

    void insert(int i) { _tree.insert(&_items[i]); }
    void remove(int i) { _tree.remove(&_items[i]); }
    void find(int i) {
        Item key;
        key.key = _keys[i];
        benchmark::DoNotOptimize(_tree.find(&key, bst_equal));
    }
    void at(int i) { benchmark::DoNotOptimize(_tree[i]); }

private:
    using Order = avl_bstree::Order;
    struct alignas(64) Item : avl_bsnode {
        int key = 0;
    };
    static const Item* item(__bsnode const* n) { return static_cast<const Item*>(static_cast<avl_bsnode const*>(n)); }
    static int three_way(int a, int b) { return (a > b) - (a < b); }

    std::vector<int> _keys;
    std::vector<Item> _items;
    c_bstree<avl_bstree, Item> _tree;
};

class Gnu {
public:
    explicit Gnu(const std::vector<int>& keys) : _keys(keys), _tree(Less()) {}

    void insert(int i) { _tree.insert({_keys[i], &_keys[i]}); }
    void remove(int i) { _tree.erase(_keys[i]); }
    void find(int i) { benchmark::DoNotOptimize(_tree.find(_keys[i])); }
    void at(int i) { benchmark::DoNotOptimize(_tree.find_by_order(i)); }

private:
    struct Less {
        using Pointer = bool (*)(const int& a, const int& b);
        Less() : less([](const int& a, const int& b) { return a < b; }) { benchmark::DoNotOptimize(less); }
        bool operator()(const int& a, const int& b) const { return less(a, b); }
        Pointer less;
    };

    std::vector<int> _keys;
    __gnu_pbds::tree<int, int*, Less, __gnu_pbds::rb_tree_tag, __gnu_pbds::tree_order_statistics_node_update> _tree;
};

#ifdef KAV_PEER_BOOST
namespace bi = boost::intrusive;

class Boost {
public:
    explicit Boost(const std::vector<int>& keys) : _keys(keys), _items(keys.size()), _tree(Less()) {
        for (size_t i = 0; i < keys.size(); ++i) _items[i].key = keys[i];
    }
    ~Boost() { _tree.clear(); }

    void insert(int i) { _tree.insert(_items[i]); }
    void remove(int i) { _tree.erase(_items[i]); }
    void remove_element(int i) { _tree.erase(_tree.iterator_to(_items[i])); }
    void find(int i) {
        Item key;
        key.key = _keys[i];
        benchmark::DoNotOptimize(_tree.find(key));
    }

private:
    struct alignas(64) Item : bi::avl_set_base_hook<bi::link_mode<bi::normal_link>> {
        int key = 0;
    };
    struct Less {
        using Pointer = bool (*)(const Item& a, const Item& b);
        Less() : less([](const Item& a, const Item& b) { return a.key < b.key; }) { benchmark::DoNotOptimize(less); }
        bool operator()(const Item& a, const Item& b) const { return less(a, b); }
        Pointer less;
    };

    std::vector<int> _keys;
    std::vector<Item> _items;
    bi::avl_multiset<Item, bi::compare<Less>> _tree;
};
#endif

/// CPU time of this thread [s]: other programs on the machine disturb it less than the time that passes.
double cpu_time() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

/// A full tree of n elements with random keys, and every round a fresh random quarter of them, so that no branch
/// predictor learns the way.
template <class Peer>
class Rounds {
public:
    explicit Rounds(benchmark::State& state) : _state(state), _order(static_cast<size_t>(state.range(0))) {
        std::vector<int> keys(_order.size());
        for (size_t i = 0; i < keys.size(); ++i) keys[i] = _order[i] = static_cast<int>(i);
        std::shuffle(keys.begin(), keys.end(), _random);
        _peer = std::make_unique<Peer>(keys);
        std::shuffle(_order.begin(), _order.end(), _random);
        for (int i : _order) _peer->insert(i);
    }

    template <class Before, class Timed, class After>
    void run(Before before, Timed timed, After after) {
        const size_t some = _order.size() / 4;
        while (_state.KeepRunningBatch(static_cast<int64_t>(some))) {
            choose(some);
            for (size_t i = 0; i < some; ++i) before(*_peer, _order[i]);
            std::shuffle(_order.begin(), _order.begin() + static_cast<long>(some), _random);
            const double start = cpu_time();
            for (size_t i = 0; i < some; ++i) timed(*_peer, _order[i]);
            _state.SetIterationTime(cpu_time() - start);
            for (size_t i = 0; i < some; ++i) after(*_peer, _order[i]);
        }
    }

private:
    void choose(size_t some) {
        for (size_t i = 0; i < some; ++i) std::swap(_order[i], _order[i + _random() % (_order.size() - i)]);
    }

    benchmark::State& _state;
    std::mt19937 _random{1};
    std::vector<int> _order;
    std::unique_ptr<Peer> _peer;
};

constexpr auto nothing = [](auto&, int) {};
constexpr auto do_insert = [](auto& peer, int i) { peer.insert(i); };
constexpr auto do_remove = [](auto& peer, int i) { peer.remove(i); };

template <class Peer>
void insert(benchmark::State& state) {
    Rounds<Peer>(state).run(do_remove, do_insert, nothing);
}
template <class Peer>
void remove(benchmark::State& state) {
    Rounds<Peer>(state).run(nothing, do_remove, do_insert);
}
template <class Peer>
void remove_element(benchmark::State& state) {
    Rounds<Peer>(state).run(
        nothing, [](auto& peer, int i) { peer.remove_element(i); }, do_insert);
}
template <class Peer>
void find(benchmark::State& state) {
    Rounds<Peer>(state).run(
        nothing, [](auto& peer, int i) { peer.find(i); }, nothing);
}
template <class Peer>
void at(benchmark::State& state) {
    Rounds<Peer>(state).run(
        nothing, [](auto& peer, int i) { peer.at(i); }, nothing);
}

#define PEER_BENCH(operation, peer)                                                                                    \
    BENCHMARK_TEMPLATE(operation, peer)->UseManualTime()->MinTime(0.002)->RangeMultiplier(10)->Range(100, 100000)

PEER_BENCH(insert, Ours);
PEER_BENCH(insert, Gnu);
PEER_BENCH(remove, Ours);
PEER_BENCH(remove, Gnu);
PEER_BENCH(find, Ours);
PEER_BENCH(find, Gnu);
PEER_BENCH(at, Ours);
PEER_BENCH(at, Gnu);
#ifdef KAV_PEER_BOOST
PEER_BENCH(insert, Boost);
PEER_BENCH(remove, Boost);
PEER_BENCH(remove_element, Boost);
PEER_BENCH(find, Boost);
#endif

} // namespace

BENCHMARK_MAIN();
