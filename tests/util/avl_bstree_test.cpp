// SPDX-License-Identifier: MIT
#include "support/allocations.h"
#include "support/capture.h"
#include "support/child.h"
#include "util/avl_bstree.h"
#include <algorithm>
#include <climits>
#include <csignal>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

/// The node is not at the start of the element, as in elements with virtual functions of their own.
struct Named {
    virtual ~Named() = default;
};
struct Item : Named, avl_bsnode {
    int key = 0;
};

int compared; // calls of by_key so far

int by_key(const Item* a, const Item* b) {
    ++compared;
    return (a->key > b->key) - (a->key < b->key);
}

/// Items with the given keys, inserted in the order given.
struct Tree : c_bstree<avl_bstree, Item> {
    explicit Tree(const std::vector<int>& keys = {}) : items(keys.size()) {
        create<by_key>();
        for (size_t i = 0; i < keys.size(); ++i) {
            items[i].key = keys[i];
            insert(&items[i]);
        }
    }
    ~Tree() override { flush(); }

    Item* with(int key) {
        return &*std::find_if(items.begin(), items.end(), [=](const Item& item) { return item.key == key; });
    }
    bool sound() const { return integrity() == 0; }

    std::vector<Item> items;
};

constexpr bstree_cond_t conditions[] = {bst_less, bst_less_equal, bst_equal, bst_greater, bst_greater_equal, bst_this};

TEST(Tree, agrees_with_a_set_over_random_inserts_and_removes) {
    std::mt19937 random(20240611);
    std::set<std::pair<int, const Item*>> model; // equal keys are ordered by address
    Tree tree;
    tree.items.resize(600);
    for (int step = 0; step < 100000; ++step) {
        Item& item = tree.items[random() % tree.items.size()];
        const bool growing = step / 10000 % 2 == 0;
        const long before = allocations();
        if (random() % 100 >= (growing ? 70 : 0)) { // until none is left
            const int removed = tree.remove(&item);
            ASSERT_EQ(allocations(), before);
            ASSERT_EQ(removed, model.erase({item.key, &item}) ? 0 : -1);
            ASSERT_FALSE(item.in_tree());
        } else if (!item.in_tree()) {
            item.key = static_cast<int>(random() % (step / 20000 % 2 ? 3 : 1000)); // few and many equal ones
            ASSERT_EQ(tree.insert(&item), 0);
            ASSERT_EQ(allocations(), before);
            model.insert({item.key, &item});
        }
        ASSERT_EQ(tree.count(), static_cast<int>(model.size()));
        ASSERT_EQ(tree.first(), model.empty() ? nullptr : model.begin()->second);
        if (step % 1000) continue;
        ASSERT_TRUE(tree.sound());
        const Item *walk = tree.first(), *previous = nullptr;
        int i = 0;
        for (const auto& [key, expected] : model) {
            ASSERT_EQ(walk, expected);
            ASSERT_EQ(tree[i++], expected);
            ASSERT_EQ(tree.previous(walk), previous);
            previous = walk;
            walk = tree.next(walk);
        }
        ASSERT_TRUE(!walk && !tree[i] && !tree[-1]);
    }
}

TEST(Tree, tells_apart_addresses_that_agree_in_their_lower_or_differ_in_their_highest_bits) {
    avl_bstree tree;
    tree.create([](__bsnode const*, __bsnode const*) { return 0; });
    const uintptr_t low = 0x1000;
    for (uintptr_t high : {low + 0x10, low + (uintptr_t(1) << (sizeof low * 4)), ~low}) {
        const auto* a = reinterpret_cast<avl_bsnode const*>(low);
        const auto* b = reinterpret_cast<avl_bsnode const*>(high);
        EXPECT_TRUE(tree.mycompare2(a, b) < 0 && tree.mycompare2(b, a) > 0 && tree.mycompare2(b, b) == 0) << high;
    }
}

struct Seeks : avl_bstree::Searcher {
    explicit Seeks(int k) : key(k) {}
    int compare(avl_bsnode const* n) const override { return static_cast<const Item*>(n)->key - key; }
    int key;
};

/// The key of the last element on the way to `key`, -2 in an empty tree.
int last_visited(const Tree& tree, int key) {
    int last = -2;
    for (const __bsnode* n = tree.header.greater; n && last != key; n = key < last ? n->less : n->greater) {
        last = static_cast<const Item*>(static_cast<const avl_bsnode*>(n))->key;
    }
    return last;
}

TEST(Find, agrees_with_a_sorted_vector_for_every_condition_key_and_size) {
    std::mt19937 random(3);
    for (int n = 0; n <= 40; ++n) {
        std::vector<int> keys; // 0, 2, 4 ...
        for (int i = 0; i < n; ++i) keys.push_back(2 * i);
        std::shuffle(keys.begin(), keys.end(), random);
        Tree tree(keys);
        for (int key = -1; key <= 2 * n; ++key) {
            const int below = (key + 1) / 2; // elements less than key
            const int equal = key >= 0 && key % 2 == 0 && key < 2 * n ? below : -1;
            const int above = equal < 0 ? below : below + 1;
            const int expected[] = {below - 1, equal < 0 ? below - 1 : equal, equal,
                                    above,     equal < 0 ? above : equal,     equal};
            Item unlinked;
            unlinked.key = key;
            for (bstree_cond_t cond : conditions) {
                SCOPED_TRACE(testing::Message() << n << " elements, key " << key << ", condition " << cond);
                Item* result = tree[expected[cond]];
                Seeks seeks(key);
                int index = -2, sought_index = -2;
                // This very element is found by itself only, never by another one with its key.
                ASSERT_EQ(tree.find(&unlinked, cond, &index), cond == bst_this ? nullptr : result);
                ASSERT_EQ(tree.find(nullptr, cond, &sought_index, &seeks), result);
                if (cond == bst_this) continue;
                ASSERT_EQ(index, last_visited(tree, key) / 2) << "the position where the search ended";
                ASSERT_EQ(sought_index, index);
            }
        }
    }
}

TEST(Nearby, climbs_by_key_alone_so_that_an_equal_element_may_be_given) {
    Tree tree;
    tree.items.resize(3);
    Item *a = &tree.items[0], *b = &tree.items[1], *c = &tree.items[2]; // equal, in this order
    for (Item* i : {b, a, c}) tree.insert(i);                           // b is the root
    const struct {
        Item *from, *expected[6];
    } cases[] = {{a, {nullptr, b, a, nullptr, b, nullptr}},
                 {b, {a, a, b, c, c, nullptr}},
                 {c, {nullptr, b, c, nullptr, b, nullptr}}};
    for (const auto& test : cases) {
        for (bstree_cond_t cond : conditions) EXPECT_EQ(tree.nearby(test.from, cond), test.expected[cond]) << cond;
    }
}

TEST(Remove, puts_the_predecessor_in_its_place_and_refuses_an_element_of_another_tree) {
    Tree tree({40, 20, 60, 10, 30, 50, 70}), other({5, 40, 35, 75});
    for (Item& stranger : other.items) {
        EXPECT_EQ(tree.remove(&stranger), -1);
        EXPECT_TRUE(stranger.in_tree());
        EXPECT_TRUE(tree.sound()) << stranger.key;
    }
    tree.remove(tree.with(40));
    EXPECT_EQ(tree.header.greater, tree.with(30));
}

TEST(Flush, detaches_every_element_without_a_comparison_for_use_again) {
    Tree tree({40, 20, 60, 10, 30, 50, 70, 35});
    for (Item& i : tree.items) i.key = 100 - i.key; // spoilt: nothing can be found any more
    compared = 0;
    tree.flush();
    EXPECT_EQ(compared, 0);
    EXPECT_TRUE(tree.count() == 0 && !tree.first());
    for (Item& i : tree.items) ASSERT_EQ(tree.insert(&i), 0);
    Item copy(tree.items[1]);
    EXPECT_FALSE(copy.in_tree());
    tree.items[1] = copy;
    EXPECT_TRUE(tree.sound()) << "links are not copied";
}

TEST(Integrity, notices_each_kind_of_damage) {
    void (*const damages[])(Tree&) = {
        [](Tree& t) { t.with(20)->balance = 1; },
        [](Tree& t) { ++t.with(20)->rank; },
        [](Tree& t) { t.with(10)->parent = t.with(40); },
        [](Tree& t) { t.with(60)->less = nullptr; },
        [](Tree& t) { std::swap(t.with(30)->key, t.with(50)->key); },
    };
    for (const auto& damage : damages) {
        Tree tree({40, 20, 60, 10, 30, 50, 70});
        damage(tree);
        EXPECT_FALSE(tree.sound()) << "damage " << &damage - damages;
    }
}

TEST(Insert, survives_an_element_that_was_cleared_in_the_tree) {
    Tree tree({20, 10, 30});
    Item *cleared = tree.with(10), below;
    cleared->parent = nullptr;
    EXPECT_EQ(tree.insert(cleared), -1) << "its place is taken by itself";
    EXPECT_EQ(tree.with(20)->rank, 2);
    below.key = 5;
    Capture err(stderr);
    EXPECT_EQ(tree.insert(&below), 0);
    EXPECT_EQ(err.text(), "NULL in avl_bstree\r\n");
    below.parent = nullptr;
}

void insert_after_init() { // which unlinks nothing
    Tree t({1});
    t.init();
    t.insert(&t.items[0]);
}
template <class T>
void compare_without_an_order() {
    T t;
    Item a, b;
    t.insert(&a);
    t.insert(&b);
}
void change_a_linked_element() {
    Tree t({1});
    t.get_mutable(&t.items[0])->key = 2;
}
TEST(Misuse, ends_the_process_with_its_message) {
    const struct {
        void (*body)();
        int signal;
        const char* message;
    } cases[] = {
        {insert_after_init, SIGABRT, "BUG: avl_bstree::insert, already in a tree.\r\n"},
        {compare_without_an_order<avl_bstree>, SIGABRT, "BUG: avl_bstree::create not called\r\n"},
        {compare_without_an_order<c_bstree<avl_bstree, Item>>, 0, "c_bstree::create not called"},
        {change_a_linked_element, 0, "c_bstree::get_mutable(): already in T::"},
    };
    for (const auto& test : cases) {
        const Child_result child = run_child(test.body);
        EXPECT_EQ(child.signal, test.signal);
        EXPECT_EQ(child.status, test.signal ? -1 : 102);
        EXPECT_EQ((test.signal ? child.out : child.err).find(test.message), 0u) << child.out << child.err;
    }
}

} // namespace
