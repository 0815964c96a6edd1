// SPDX-License-Identifier: MIT
#include "support/test.h"
#include "util/Ring_buffer.h"
#include "util/avl_bstree.h"
#include "util/sl_list.h"

namespace {

/// The node is not at the start of the element, as in elements with virtual functions of their own.
struct Named {
    virtual ~Named() = default;
};
struct Item : Named, avl_bsnode {
    int key = 0;
};

int by_key(const Item* a, const Item* b) { return (a->key > b->key) - (a->key < b->key); }

/// Items with the given keys, inserted in the order given.
struct Tree : c_bstree<avl_bstree, Item> {
    explicit Tree(const std::vector<int>& keys) : items(keys.size()) {
        create<by_key>();
        for (size_t i = 0; i < keys.size(); ++i) {
            items[i].key = keys[i];
            insert(&items[i]);
        }
    }
    ~Tree() override { flush(); }
    std::vector<Item> items;
};
const std::vector<int> seven = {40, 20, 60, 10, 30, 50, 70}; // three full levels

TEST(Tree, agrees_with_a_set_over_random_inserts_and_removes_and_allocates_nothing) {
    std::mt19937 random(20240611);
    std::set<std::pair<int, const Item*>> model; // equal keys are ordered by address
    Tree tree({});
    tree.items.resize(600);
    for (int step = 0; step < 100000; ++step) {
        Item& item = tree.items[random() % tree.items.size()];
        const long before = allocations();
        if (random() % 100 >= (step / 10000 % 2 ? 0 : 70)) { // grows, then shrinks until none is left
            const int removed = tree.remove(&item);
            ASSERT_EQ(allocations(), before);
            ASSERT_EQ(removed, model.erase({item.key, &item}) ? 0 : -1);
        } else if (!item.in_tree()) {
            item.key = static_cast<int>(random() % (step / 20000 % 2 ? 3 : 1000)); // few and many equal ones
            ASSERT_EQ(tree.insert(&item), 0);
            ASSERT_EQ(allocations(), before);
            model.insert({item.key, &item});
        }
        ASSERT_EQ(tree.count(), static_cast<int>(model.size()));
        ASSERT_EQ(tree.first(), model.empty() ? nullptr : model.begin()->second);
        if (step % 1000) continue;
        ASSERT_EQ(tree.integrity(), 0);
        const Item *walk = tree.first(), *previous = nullptr;
        int i = 0;
        for (const auto& [key, expected] : model) {
            ASSERT_VALUES(texts(expected, expected, previous), walk, tree[i++], tree.previous(walk));
            previous = walk;
            walk = tree.next(walk);
        }
        ASSERT_VALUES("true true true", !walk, !tree[i], !tree[-1]);
    }
}

TEST(Tree, finds_by_key_condition_and_searcher) {
    struct Seeks : avl_bstree::Searcher {
        int compare(avl_bsnode const* n) const override { return static_cast<const Item*>(n)->key - key; }
        int key = 0;
    } seeks;
    Tree tree(seven), empty({});
    Item unlinked;
    for (int key = 5; key <= 75; key += 5) {
        unlinked.key = seeks.key = key;
        const int below = (key - 1) / 10, equal = key % 10 ? -1 : below, above = equal < 0 ? below : below + 1;
        const int expected[] = {below - 1, equal < 0 ? below - 1 : equal, equal, above, equal < 0 ? above : equal, -1};
        for (int cond = 0; cond < 8; ++cond) {
            SCOPED_TRACE(testing::Message() << key << ", condition " << cond);
            Item* const result = cond < 6 ? tree[expected[cond]] : nullptr;
            int index = -2, sought = -2, none = -2;
            EXPECT_EQ(tree.find(&unlinked, bstree_cond_t(cond), &index), result);
            EXPECT_EQ(tree.find(nullptr, bstree_cond_t(cond), &sought, &seeks), cond == 5 ? tree[equal] : result);
            EXPECT_EQ(sought, equal < 0 ? below / 2 * 2 : equal) << "the position of the last one visited";
            EXPECT_TRUE(cond == 5 || index == sought);
            EXPECT_VALUES("null -1", empty.find(&unlinked, bstree_cond_t(cond), &none), none);
        }
    }
}

TEST(Tree, orders_equal_keys_by_their_whole_address_but_climbs_by_key_alone) {
    Tree tree({});
    tree.items.resize(3);
    Item *a = &tree.items[0], *b = &tree.items[1], *c = &tree.items[2];
    for (Item* i : {b, a, c}) tree.insert(i); // b is the root
    Item* const expected[3][6] = {
        {nullptr, b, a, nullptr, b, nullptr}, {a, a, b, c, c, nullptr}, {nullptr, b, c, nullptr, b, nullptr}};
    for (int i = 0; i < 18; ++i) EXPECT_EQ(tree.nearby(tree[i / 6], bstree_cond_t(i % 6)), expected[i / 6][i % 6]) << i;

    avl_bstree plain;
    plain.create([](__bsnode const*, __bsnode const*) { return 0; });
    const auto at = [](uintptr_t address) { return reinterpret_cast<avl_bsnode const*>(address); };
    const uintptr_t low = 0x1000, above[] = {0x1010, low + (uintptr_t(1) << (sizeof low * 4)), ~low};
    for (uintptr_t high : above) {
        EXPECT_VALUES("true true", plain.mycompare2(at(low), at(high)) < 0, plain.mycompare2(at(high), at(low)) > 0)
            << high;
    }
}

using Order = avl_bstree::Order;
using Typed = c_bstree<avl_bstree, Item>;
const Item* item(__bsnode const* n) { return static_cast<const Item*>(static_cast<avl_bsnode const*>(n)); }
int upwards(__bsnode const* a, __bsnode const* b) { return by_key(item(a), item(b)); }
int downwards(__bsnode const* a, __bsnode const* b) { return upwards(b, a); }

template <class Base>
struct Own_default : Base {
    int default_compare(avl_bsnode const* a, avl_bsnode const* b) const override { return downwards(a, b); }
};
template <class Base>
struct Own_compare : Base {
    int mycompare(avl_bsnode const* a, avl_bsnode const* b) const override { return downwards(a, b); }
};

/// Insert, look and remove in an order that is downwards, whatever else was given.
template <class Any>
void check_downwards(Any& tree, const char* what) {
    SCOPED_TRACE(what);
    Item items[50];
    for (int i = 0; i < 50; ++i) {
        items[i].key = i * 37 % 50;
        EXPECT_EQ(tree.insert(&items[i]), 0);
    }
    EXPECT_EQ(tree.integrity(), 0);
    for (Item& i : items) {
        int index = -1;
        EXPECT_VALUES(texts(true, 49 - i.key, true), tree.find(&i, bst_this, &index) == &i, index, tree[index] == &i);
        EXPECT_VALUES(texts(tree[index - 1], tree[index + 1]), tree.find(&i, bst_less), tree.nearby(&i, bst_greater));
    }
    for (int i = 0; i < 50; i += 2) EXPECT_EQ(tree.remove(&items[i]), 0);
    EXPECT_EQ(tree.integrity(), 0);
    tree.flush();
}

TEST(Tree, goes_by_one_order_wherever_that_is_given) {
    Own_default<avl_bstree> plain_default;
    Own_compare<avl_bstree> plain_compare;
    plain_compare.create(upwards); // mycompare() comes before it
    Own_default<Typed> typed_default;
    Own_compare<Typed> typed_compare;
    Typed base, last;
    for (Typed* t : {static_cast<Typed*>(&typed_default), static_cast<Typed*>(&typed_compare), &base})
        t->create<by_key>();
    base.avl_bstree::create(downwards); // comes before the typed one
    last.avl_bstree::create(upwards);
    last.create(downwards); // of two creates the last counts
    check_downwards(plain_default, "default_compare()");
    check_downwards(plain_compare, "mycompare()");
    check_downwards(typed_default, "typed, default_compare()");
    check_downwards(typed_compare, "typed, mycompare()");
    check_downwards(base, "typed, the base's order");
    check_downwards(last, "typed");
    check_downwards(static_cast<avl_bstree&>(last), "typed, by its base");
}

TEST(Tree, removes_by_the_predecessor_refuses_strangers_and_flushes_without_comparing) {
    Tree tree(seven), other({5, 40, 35, 75});
    for (Item& stranger : other.items) EXPECT_VALUES("-1 true", tree.remove(&stranger), stranger.in_tree());
    tree.remove(&tree.items[0]);
    EXPECT_VALUES("true 0", tree.header.greater == &tree.items[4], tree.integrity());
    for (Item& i : tree.items) i.key = -i.key; // spoilt: nothing can be found any more
    tree.flush();
    EXPECT_VALUES("0 null", tree.count(), tree.first());
    for (Item& i : tree.items) ASSERT_EQ(tree.insert(&i), 0);
    Item copy(tree.items[1]);
    tree.items[1] = copy;
    EXPECT_VALUES("false 0", copy.in_tree(), tree.integrity()) << "links are not copied";
}

TEST(Tree, is_dumped) {
    Tree tree({20, 10});
    const void *none = nullptr, *root = static_cast<avl_bsnode*>(tree[1]), *less = static_cast<avl_bsnode*>(tree[0]);
    const Child_result r = run_child([&] { tree.dump_tree(); });
    EXPECT_EQ(r.err, text_of("depth 0, less: (0,%p), greater: (1,%p)\nless: greater: "
                             "depth 1, less: (-1,%p), greater: (0,%p)\nless: leaf node at depth 2\ngreater: ",
                             none, root, less, none));
    EXPECT_EQ(r.out, "top: ");
}

TEST(Ring_buffer, behaves_as_a_bounded_queue) {
    std::mt19937 random(77012);
    for (uint32_t capacity : {1u, 2u, 3u, 128u}) {
        const auto storage = std::make_unique<unsigned char[]>(capacity); // the sanitizer sees a step beyond it
        Ring_buffer ring(storage.get(), capacity);
        std::string model;
        const auto up_to = [&] { return static_cast<uint32_t>(random() % (capacity + 3)); };
        for (int step = 0; step < 4000; ++step) {
            const uint32_t n = up_to(), room = capacity - ring.used();
            std::string piece(n, 0);
            for (char& c : piece) c = static_cast<char>(random());
            piece.resize(ring.put(reinterpret_cast<const unsigned char*>(piece.data()), n));
            ASSERT_EQ(piece.size(), std::min(n, room));
            model += piece;
            ASSERT_VALUES(texts(model.size(), model.size() == capacity), ring.used(), ring.full()) << step;
            ASSERT_VALUES(texts(ring.tail == ~0u, model.empty()), ring.full(), ring.empty()) << step;
            const uint32_t offset = up_to(), dropped = up_to();
            std::string got(up_to(), 0);
            const std::string expected = offset < model.size() ? model.substr(offset, got.size()) : "";
            got.resize(ring.peek(offset, reinterpret_cast<unsigned char*>(&got[0]), uint32_t(got.size())));
            ASSERT_EQ(got, expected) << step;
            const bool stored = offset < model.size(); // beyond: the start of the storage
            ASSERT_EQ(ring.at(offset), storage.get() + (stored ? (ring.head + offset) % capacity : 0)) << step;
            ASSERT_EQ(ring.drop(dropped), std::min<size_t>(dropped, model.size())) << step;
            model.erase(0, dropped);
        }
    }
}

/// The link is not at the start of the element: the list must still hand back the element.
struct Element : Named, sll_node {};
using List = c_sl_list<Element>;

TEST(sl_list, is_a_queue_with_removal_from_anywhere) {
    Element e[4];
    List list;
    const auto order = [&] { // by position, which must agree with the walk
        std::string all;
        Element* walk = list.first();
        for (int i = 0; i < list.size(); ++i, walk = list.next(walk)) all += std::to_string(walk - e);
        EXPECT_VALUES("true true true", !walk, !list[-1], !list[list.size()]);
        for (int i = 0; i < list.size(); ++i) EXPECT_EQ(list[i], &e[all[static_cast<size_t>(i)] - '0']);
        return all;
    };
    for (Element& x : e) EXPECT_EQ(list.push(&x), 1);
    for (const auto& [which, left] : {std::pair(2, "013"), {3, "01"}, {0, "1"}, {1, ""}}) { // middle, tail, head, only
        for (int removed : {1, 0}) EXPECT_VALUES(texts(removed, left), list.remove(&e[which]), order()) << which;
        list.push(&e[which]);
        EXPECT_EQ(order(), left + std::to_string(which)) << "the tail moved back";
        list.remove(&e[which]);
    }
}

TEST(Misuse, of_a_container_ends_the_process_with_a_message) {
    Tree tree({1});
    Item *linked = &tree.items[0], a, b;
    avl_bstree plain;
    c_bstree<avl_bstree, Item> typed; // neither of them knows an order
    List list, other;
    Element last;
    list.push(&last); // its link leads nowhere
    const std::tuple<std::function<void()>, int, const char*> cases[] = {
        // status -1: aborted
        {[&] { tree.init(), tree.insert(linked); }, -1, "BUG: avl_bstree::insert, already in a tree.\r\n"},
        {[&] { plain.insert(&a), plain.insert(&b); }, -1, "BUG: avl_bstree::create not called\r\n"},
        {[&] { typed.insert(&a), typed.insert(&b); }, 102, "c_bstree::create not called"},
        {[&] { tree.get_mutable(linked); }, 102, "c_bstree::get_mutable(): already in T::"},
        {[&] { other.push(&last); }, -1, "BUG: sl_list::push, already in a list.\n\r\n"},
    };
    for (const auto& [misuse, status, message] : cases) {
        const Child_result child = run_child(misuse);
        EXPECT_EQ(child.status, status);
        EXPECT_EQ(status < 0 ? child.out : child.err, message);
    }
    list.remove(&last);
}

} // namespace
