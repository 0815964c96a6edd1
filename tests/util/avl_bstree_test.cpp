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
        auto i = std::find_if(items.begin(), items.end(), [=](const Item& item) { return item.key == key; });
        return i == items.end() ? nullptr : &*i;
    }
    std::vector<int> keys() const {
        std::vector<int> all;
        for (const Item& i : *this) all.push_back(i.key);
        return all;
    }
    bool sound() const { return integrity() == 0; }

    std::vector<Item> items;
};

constexpr bstree_cond_t conditions[] = {bst_less, bst_less_equal, bst_equal, bst_greater, bst_greater_equal, bst_this};

TEST(Tree, agrees_with_a_set_over_random_inserts_and_removes) {
    struct In_order {
        bool operator()(const Item* a, const Item* b) const {
            return a->key != b->key ? a->key < b->key : std::less<const Item*>()(a, b);
        }
    };
    const unsigned seed = 20240611;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::set<const Item*, In_order> model;
    Tree tree;
    tree.items.resize(600);
    for (int step = 0; step < 100000; ++step) {
        Item& item = tree.items[random() % tree.items.size()];
        const bool growing = step / 10000 % 2 == 0;
        if (random() % 100 >= (growing ? 70 : 0)) { // until none is left
            ASSERT_EQ(tree.remove(&item), model.erase(&item) ? 0 : -1);
            ASSERT_FALSE(item.in_tree());
        } else if (!item.in_tree()) {
            item.key = static_cast<int>(random() % (step / 20000 % 2 ? 3 : 1000)); // few and many equal ones
            ASSERT_EQ(tree.insert(&item), 0);
            model.insert(&item);
        }
        ASSERT_EQ(tree.count(), static_cast<int>(model.size()));
        ASSERT_EQ(tree.first(), model.empty() ? nullptr : *model.begin());
        if (step % 1000) continue;
        ASSERT_TRUE(tree.sound());
        const Item* walk = tree.first();
        const Item* before = nullptr;
        int i = 0;
        for (const Item* expected : model) {
            ASSERT_EQ(walk, expected);
            ASSERT_EQ(tree[i++], expected);
            ASSERT_EQ(tree.previous(walk), before);
            before = walk;
            walk = tree.next(walk);
        }
        ASSERT_EQ(walk, nullptr);
    }
}

TEST(Tree, tells_apart_addresses_that_agree_in_their_lower_or_differ_in_their_highest_bits) {
    avl_bstree tree;
    tree.create([](__bsnode const*, __bsnode const*) { return 0; });
    const uintptr_t low = 0x1000;
    for (uintptr_t high : {low + 0x10, low + (uintptr_t(1) << (sizeof low * 4)), ~low}) {
        const auto* a = reinterpret_cast<avl_bsnode const*>(low);
        const auto* b = reinterpret_cast<avl_bsnode const*>(high);
        EXPECT_LT(tree.mycompare2(a, b), 0) << high;
        EXPECT_GT(tree.mycompare2(b, a), 0) << high;
        EXPECT_EQ(tree.mycompare2(b, b), 0) << high;
    }
}

struct Seeks : avl_bstree::Searcher {
    explicit Seeks(int k) : key(k) {}
    int compare(avl_bsnode const* n) const override { return static_cast<const Item*>(n)->key - key; }
    int key;
};

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
                ASSERT_TRUE(n == 0 ? index == -1 : index >= std::max(below - 1, 0) && index <= std::min(above, n - 1));
                if (cond == bst_this) continue;
                ASSERT_EQ(index, sought_index);
                ASSERT_TRUE(equal < 0 || index == equal);
            }
        }
    }
}

TEST(Find, gives_the_position_of_the_last_element_visited) {
    Tree tree({40, 20, 60, 10, 30, 50, 70, 35});
    const int cases[][2] = {{5, 0},  {10, 0}, {15, 0}, {20, 1}, {25, 2}, {32, 3}, {37, 3},
                            {40, 4}, {45, 5}, {55, 5}, {60, 6}, {65, 7}, {99, 7}};
    for (auto [key, position] : cases) {
        Item k;
        k.key = key;
        for (bstree_cond_t cond : {bst_less, bst_less_equal, bst_equal, bst_greater, bst_greater_equal}) {
            int index = -2;
            tree.find(&k, cond, &index);
            EXPECT_EQ(index, position) << key << ", condition " << cond;
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
    } cases[] = {
        {a, {nullptr, b, a, nullptr, b, nullptr}},
        {b, {a, a, b, c, c, nullptr}},
        {c, {nullptr, b, c, nullptr, b, nullptr}},
    };
    for (const auto& test : cases) {
        for (bstree_cond_t cond : conditions) EXPECT_EQ(tree.nearby(test.from, cond), test.expected[cond]) << cond;
    }
    EXPECT_EQ(tree.find(a, bst_less), a) << "what nearby says of the root";
    EXPECT_EQ(tree.find(a, bst_less_equal), b);
}

TEST(Tree, has_nothing_beyond_its_ends) {
    Tree tree({1, 2, 3});
    for (int i : {-1, 3, INT_MAX, INT_MIN}) EXPECT_EQ(tree[i], nullptr) << i;
    const avl_bstree& base = tree;
    const avl_bsnode unlinked;
    for (avl_bsnode const* n : {&base.header, &unlinked}) {
        EXPECT_EQ(base.next(n), nullptr);
        EXPECT_EQ(base.previous(n), nullptr);
        for (bstree_cond_t cond : conditions) EXPECT_EQ(base.nearby(n, cond), nullptr);
    }
    EXPECT_EQ(tree.nearby(nullptr, bst_equal), nullptr);
}

TEST(Remove, of_an_element_of_another_tree_changes_no_rank) {
    Tree tree({40, 20, 60, 10, 30, 50, 70}), other({5, 40, 35, 75});
    for (Item& stranger : other.items) {
        EXPECT_EQ(tree.remove(&stranger), -1);
        EXPECT_TRUE(stranger.in_tree());
        EXPECT_TRUE(tree.sound()) << stranger.key;
    }
}

TEST(Remove, puts_the_predecessor_in_the_place_of_the_element) {
    Tree tree({40, 20, 60});
    tree.remove(tree.with(40));
    EXPECT_EQ(tree.header.greater, tree.with(20));
    EXPECT_TRUE(tree.sound());
}

TEST(Flush, detaches_every_element_without_a_comparison) {
    Tree tree({40, 20, 60, 10, 30, 50, 70, 35});
    for (Item& i : tree.items) i.key = 100 - i.key; // spoilt: nothing can be found any more
    compared = 0;
    tree.flush();
    EXPECT_EQ(compared, 0);
    EXPECT_EQ(tree.count(), 0);
    EXPECT_EQ(tree.first(), nullptr);
    for (Item& i : tree.items) ASSERT_EQ(tree.insert(&i), 0);
    EXPECT_EQ(tree.keys(), (std::vector<int>{30, 40, 50, 60, 65, 70, 80, 90}));
}

TEST(Integrity, notices_each_kind_of_damage) {
    const struct {
        const char* what;
        void (*damage)(Tree&);
    } cases[] = {
        {"a balance", [](Tree& t) { t.with(20)->balance = 1; }},
        {"a rank", [](Tree& t) { ++t.with(20)->rank; }},
        {"a less child's parent", [](Tree& t) { t.with(10)->parent = t.with(40); }},
        {"a greater child's parent", [](Tree& t) { t.with(70)->parent = t.with(40); }},
        {"the order", [](Tree& t) { std::swap(t.with(30)->key, t.with(50)->key); }},
        {"the least element", [](Tree& t) { static_cast<avl_bstree&>(t).first = t.with(20); }},
        {"a lost subtree", [](Tree& t) { t.with(60)->less = nullptr; }},
        {"the root's parent", [](Tree& t) { t.with(40)->parent = t.with(10); }},
    };
    for (const auto& test : cases) {
        Tree tree({40, 20, 60, 10, 30, 50, 70});
        ASSERT_TRUE(tree.sound());
        test.damage(tree);
        EXPECT_FALSE(tree.sound()) << test.what;
    }
}

TEST(Insert, survives_an_element_that_was_cleared_in_the_tree) {
    Tree tree({20, 10, 30});
    Item* cleared = tree.with(10);
    cleared->parent = nullptr;
    EXPECT_EQ(tree.insert(cleared), -1) << "its place is taken by itself";
    EXPECT_EQ(tree.with(20)->rank, 2);
    Item below;
    below.key = 5;
    Capture err(stderr);
    EXPECT_EQ(tree.insert(&below), 0);
    EXPECT_EQ(err.text(), "NULL in avl_bstree\r\n");
    below.parent = nullptr;
}

TEST(Tree, does_not_allocate) {
    std::vector<int> keys(1000);
    for (size_t i = 0; i < keys.size(); ++i) keys[i] = static_cast<int>(i * 7919 % 1000);
    Tree tree(keys);
    const long before = allocations();
    for (Item& i : tree.items) {
        tree.remove(&i);
        tree.insert(&i);
        tree.find(&i, bst_less);
    }
    EXPECT_EQ(allocations(), before);
}

TEST(Node, copies_no_links) {
    Tree tree({1, 2, 3});
    Item copy(tree.items[1]);
    EXPECT_FALSE(copy.in_tree());
    EXPECT_EQ(copy.key, 2);
    copy.key = 1;
    tree.items[0] = copy; // the same key: the tree stays sound
    EXPECT_TRUE(tree.sound());
    EXPECT_EQ(tree.keys(), (std::vector<int>{1, 2, 3}));
}

TEST(Node, destroyed_while_linked_is_reported_by_debug_builds) {
    avl_bstree tree;
    std::string expected;
    Capture err(stderr);
    {
        avl_bsnode n;
        tree.insert(&n);
        char line[80];
        snprintf(line, sizeof line, "avl_bsnode %p destroyed while in a tree\n", static_cast<void*>(&n));
        expected = line;
    }
#ifdef NDEBUG
    expected.clear();
#endif
    EXPECT_EQ(err.text(), expected);
}

TEST(Dump, writes_the_nodes_in_depth_and_does_not_compare_the_header) {
    Tree tree({20, 10, 30});
    char expected[400];
    const auto* root = static_cast<avl_bsnode*>(tree.with(20));
    snprintf(expected, sizeof expected,
             "depth 0, less: (0,(nil)), greater: (1,%p)\nless: greater: "
             "depth 1, less: (-1,%p), greater: (1,%p)\nless: leaf node at depth 2\ngreater: leaf node at depth 2\n",
             static_cast<const void*>(root), static_cast<void*>(root->less), static_cast<void*>(root->greater));
    Capture out(stdout), err(stderr);
    compared = 0;
    tree.dump_tree();
    EXPECT_EQ(out.text(), "top: ");
    EXPECT_EQ(err.text(), expected);
    EXPECT_EQ(compared, 2);
}

TEST(Order, comes_from_the_pointer_and_without_one_from_the_virtual_operation) {
    struct Backwards : avl_bstree {
        int default_compare(avl_bsnode const* a, avl_bsnode const* b) const override {
            return by_key(static_cast<const Item*>(b), static_cast<const Item*>(a));
        }
    } tree;
    Item items[3];
    for (int i = 0; i < 3; ++i) items[i].key = i;
    const auto forwards = [](__bsnode const* a, __bsnode const* b) {
        return by_key(static_cast<const Item*>(static_cast<avl_bsnode const*>(a)),
                      static_cast<const Item*>(static_cast<avl_bsnode const*>(b)));
    };
    for (bool pointer : {false, true}) {
        EXPECT_EQ(pointer ? tree.create(forwards) : tree.create(), 0);
        for (Item& i : items) tree.insert(&i);
        EXPECT_EQ(tree.first, &items[pointer ? 0 : 2]);
        EXPECT_EQ(tree.integrity(), 0);
        tree.flush();
    }
}

void insert_twice() {
    Tree t({1});
    t.insert(&t.items[0]);
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
void change_a_free_element() {
    Item i;
    if (Tree().get_mutable(&i) == &i) exit(7);
}

TEST(Misuse, ends_the_process_with_its_message) {
    const struct {
        void (*body)();
        int status, signal;
        std::string out, err; // what the output begins with
    } cases[] = {
        {insert_twice, -1, SIGABRT, "BUG: avl_bstree::insert, already in a tree.\r\n", ""},
        {insert_after_init, -1, SIGABRT, "BUG: avl_bstree::insert, already in a tree.\r\n", ""},
        {compare_without_an_order<avl_bstree>, -1, SIGABRT, "BUG: avl_bstree::create not called\r\n", ""},
        {compare_without_an_order<c_bstree<avl_bstree, Item>>, 102, 0, "", "c_bstree::create not called"},
        {change_a_linked_element, 102, 0, "", "c_bstree::get_mutable(): already in T::"},
        {change_a_free_element, 7, 0, "", ""},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.out + test.err);
        const Child_result child = run_child(test.body);
        EXPECT_EQ(child.status, test.status);
        EXPECT_EQ(child.signal, test.signal);
        EXPECT_EQ(child.out.substr(0, test.out.size()), test.out);
        EXPECT_EQ(child.err.substr(0, test.err.size()), test.err);
    }
}

} // namespace
