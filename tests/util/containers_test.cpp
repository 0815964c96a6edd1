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
using Nodes = std::vector<const avl_bsnode*>;
using Typed = c_bstree<avl_bstree, Item>;

int key_of(__bsnode const* n) { return static_cast<const Item*>(static_cast<avl_bsnode const*>(n))->key; }
int by_key(const Item* a, const Item* b) { return a->key - b->key; }
int upwards(__bsnode const* a, __bsnode const* b) { return key_of(a) - key_of(b); }
int downwards(__bsnode const* a, __bsnode const* b) { return key_of(b) - key_of(a); }

struct Seeks : avl_bstree::Searcher {
    explicit Seeks(int s) : sign(s) {}
    int compare(avl_bsnode const* n) const override { return last = n, sign * (key_of(n) - key); }
    const int sign;
    int key = 0;
    mutable const avl_bsnode* last = nullptr;
};

/// Items with the given keys, inserted in the order given.
struct Tree : Typed {
    explicit Tree(const std::vector<int>& keys) : items(keys.size()) {
        create<by_key>();
        for (size_t i = 0; i < keys.size(); ++i) items[i].key = keys[i], insert(&items[i]);
    }
    ~Tree() override { flush(); }
    std::vector<Item> items;
};

/// Random inserts and removes of distinct even keys, then of equal ones, in a tree that goes up (sign 1) or down (-1).
template <class Any>
void expect_sorted(int variant, Any& tree, int sign) {
    SCOPED_TRACE(variant);
    tree.flush();
    ASSERT_EQ(tree.integrity(), 0) << "empty";
    std::mt19937 random(20240611);
    std::vector<std::pair<int, const Item*>> model; // equal keys are ordered by address
    const auto place = [&](int k, const Item* i) {
        return std::lower_bound(model.begin(), model.end(), std::pair(sign * k, i));
    };
    const auto at = [&](int i) { return i < 0 || i >= int(model.size()) ? nullptr : model[size_t(i)].second; };
    Item items[300], unlinked;
    Tree strangers({0});
    for (int step = 0; step < 10000; ++step) {
        Item& i = items[random() % (1 + step % 5000 / 17)];
        const bool distinct = step < 5000, removes = i.in_tree();
        if (!removes) i.key = static_cast<int>(distinct ? (&i - items) * 2 : random() % 3);
        const long before = allocations();
        ASSERT_EQ(removes ? tree.remove(&i) : tree.insert(&i), 0);
        ASSERT_EQ(allocations(), before);
        if (removes) model.erase(place(i.key, &i));
        if (!removes) model.insert(place(i.key, &i), {sign * i.key, &i});
        const int p = static_cast<int>(random() % (model.size() + 2)) - 1;
        int index = p, sought = -2;
        Seeks seeks(sign);
        const Item* const here = at(p);
        ASSERT_EQ((Nodes{at(0), here}), (Nodes{tree.avl_bstree::first, tree[p]})) << step;
        ASSERT_TRUE(!here || (tree.previous(here) == at(p - 1) && tree.next(here) == at(p + 1))) << step;
        ASSERT_TRUE(!here || tree.find(here, bst_this, &index) == here) << step;
        unlinked.key = strangers.items[0].key = seeks.key = static_cast<int>(random() % 602);
        ASSERT_VALUES(texts(model.size(), p, -1, -1), tree.avl_bstree::count, index, tree.remove(&unlinked),
                      tree.remove(&strangers.items[0]));
        ASSERT_TRUE(step % 100 || tree.integrity() == 0);
        const int k = static_cast<int>(place(seeks.key, nullptr) - model.begin());
        const bool there = at(k) && at(k)->key == seeks.key;
        const Nodes wanted = {at(k - 1), at(k - !there), there ? at(k) : nullptr, at(k + there), at(k), {}, {}};
        for (size_t c = 0; c < wanted.size() && distinct; ++c) {
            const Nodes found = {tree.find(&unlinked, bstree_cond_t(c), &index),
                                 tree.find(nullptr, bstree_cond_t(c), &sought, &seeks), seeks.last};
            ASSERT_EQ(found, (Nodes{wanted[c], wanted[c == 5 ? 2 : c], tree[sought]})) << step << " " << c;
            ASSERT_TRUE((c == bst_this || index == sought) && (sought == -1) == model.empty()) << index << sought;
        }
    }
    tree.flush();
}

template <class Base>
struct Own_default : Base {
    int default_compare(avl_bsnode const* a, avl_bsnode const* b) const override { return downwards(a, b); }
};
template <class Base>
struct Own_compare : Base {
    int mycompare(avl_bsnode const* a, avl_bsnode const* b) const override { return downwards(a, b); }
};

TEST(Tree, sorts_finds_and_counts_by_one_order_wherever_that_is_given_and_allocates_nothing) {
    Own_default<avl_bstree> plain_default;
    Own_compare<avl_bstree> plain_compare;
    plain_compare.create(upwards); // mycompare() comes before it
    Typed typed, base, last;
    Own_default<Typed> typed_default;
    Own_compare<Typed> typed_compare;
    Typed* const all[] = {&typed, &typed_default, &typed_compare, &base, &last};
    for (Typed* t : all) t->create<by_key>();
    base.avl_bstree::create(downwards); // comes before the typed one
    last.avl_bstree::create(upwards);
    last.create(downwards); // of two creates the last counts
    for (int i = 0; i < 5; ++i) expect_sorted(i, *all[i], i == 0 ? 1 : -1);
    avl_bstree* const by_their_base[] = {&plain_default, &plain_compare, &last};
    for (int i = 0; i < 3; ++i) expect_sorted(i + 5, *by_their_base[i], -1);
}

TEST(Tree, orders_equal_keys_by_their_whole_address_but_climbs_by_key_alone) {
    Tree tree({0, 0, 0});
    Item *a = &tree.items[0], *b = &tree.items[1], *c = &tree.items[2]; // b is the root
    Nodes beside;
    for (int i = 0; i < 18; ++i) beside.push_back(tree.nearby(tree[i / 6], bstree_cond_t(i % 6)));
    EXPECT_EQ(beside, (Nodes{{}, b, a, {}, b, {}, a, a, b, c, c, {}, {}, b, c, {}, b, {}}));
    const auto at = [](uintptr_t address) { return reinterpret_cast<avl_bsnode const*>(address); };
    avl_bstree plain;
    plain.create([](__bsnode const*, __bsnode const*) { return 0; });
    for (uintptr_t high : {uintptr_t(0x1010), 0x1000 + (uintptr_t(1) << sizeof(void*) * 4), ~uintptr_t(0x1000)})
        EXPECT_TRUE(plain.mycompare2(at(0x1000), at(high)) < 0 && plain.mycompare2(at(high), at(0x1000)) > 0) << high;
}

TEST(Tree, removes_by_the_predecessor_flushes_without_comparing_and_is_dumped) {
    Tree tree({40, 20, 60, 10, 30, 50, 70}), two({2, 1}); // three full levels
    tree.remove(&tree.items[0]);
    EXPECT_VALUES("true 0", tree.header.greater == &tree.items[4], tree.integrity());
    for (Item& i : tree.items) i.key = -i.key; // spoilt: nothing can be found any more
    tree.flush();
    EXPECT_VALUES("0 null", tree.count(), tree.first());
    for (Item& i : tree.items) ASSERT_EQ(tree.insert(&i), 0);
    Item copy(tree.items[1]);
    tree.items[1] = copy;
    EXPECT_VALUES("false 0", copy.in_tree(), tree.integrity()) << "links are not copied";

    const void *none = nullptr, *root = static_cast<avl_bsnode*>(two[1]), *less = static_cast<avl_bsnode*>(two[0]);
    const Child_result r = run_child([&] { two.dump_tree(); });
    EXPECT_EQ(r.out + r.err, text_of("top: depth 0, less: (0,%p), greater: (1,%p)\nless: greater: "
                                     "depth 1, less: (-1,%p), greater: (0,%p)\nless: leaf node at depth 2\ngreater: ",
                                     none, root, less, none));
}

TEST(Ring_buffer, behaves_as_a_bounded_queue) {
    std::mt19937 random(77012);
    for (uint32_t capacity : {1u, 2u, 3u, 128u}) {
        const auto storage = std::make_unique<unsigned char[]>(capacity); // the sanitizer sees a step beyond it
        Ring_buffer ring(storage.get(), capacity);
        std::string model;
        for (int step = 0; step < 4000; ++step) {
            const auto some = [&] { return static_cast<uint32_t>(random() % (capacity + 3)); };
            const uint32_t n = some(), offset = some(), wanted = some(), dropped = some(),
                           fits = std::min(n, ring.room());
            std::string piece(n, 0), got(wanted, 0);
            std::iota(piece.begin(), piece.end(), step * 3);
            ASSERT_EQ(ring.put(reinterpret_cast<const unsigned char*>(piece.data()), n), fits);
            model = (model + piece).substr(0, capacity);
            const bool full = model.size() == capacity, stored = offset < model.size();
            ASSERT_VALUES(texts(model.size(), full, full, model.empty()), ring.used(), ring.full(), ring.tail == ~0u,
                          ring.empty());
            got.resize(ring.peek(offset, reinterpret_cast<unsigned char*>(&got[0]), wanted));
            ASSERT_EQ(got, stored ? model.substr(offset, wanted) : "") << step;
            // Beyond: the start of the storage.
            ASSERT_EQ(ring.at(offset), storage.get() + (stored ? (ring.head + offset) % capacity : 0)) << step;
            if (step % 50 == 0) ring.clear(), model.clear();
            ASSERT_EQ(ring.drop(dropped), std::min<size_t>(dropped, model.size())) << step;
            model.erase(0, dropped);
        }
    }
}

TEST(sl_list, gives_elements_by_position_and_takes_out_none_but_its_own) {
    struct Element : sll_node {
    } e[2];
    c_sl_list<Element> list;
    for (Element& x : e) list.push(&x);
    EXPECT_TRUE(list[0] == &e[0] && list[1] == &e[1] && !list[-1] && !list[2]);
    EXPECT_VALUES("1 0 1 1 0", list.remove(&e[0]), list.remove(&e[0]), list.size(), list.remove(&e[1]), list.size());
    EXPECT_FALSE(list.first() || list[0]);
}

} // namespace
