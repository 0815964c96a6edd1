// SPDX-License-Identifier: MIT
#include "util/avl_bstree.h"
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <vector>

namespace {

struct Item : avl_bsnode {
    int key = 0;
};

int by_key(const Item* a, const Item* b) { return (a->key > b->key) - (a->key < b->key); }

using Tree = c_bstree<avl_bstree, Item>;

/// The order that the tree promises: by key, then by address.
struct In_order {
    bool operator()(const Item* a, const Item* b) const {
        return a->key != b->key ? a->key < b->key : std::less<const Item*>()(a, b);
    }
};

TEST(Tree, agrees_with_a_set_over_random_inserts_and_removes) {
    const unsigned seed = 20240611;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<Item> items(600);
    Tree tree;
    tree.create<by_key>();
    std::set<const Item*, In_order> model;
    for (int step = 0; step < 100000; ++step) {
        Item& item = items[random() % items.size()];
        const unsigned fill = step / 10000 % 2 ? 30 : 70; // grow for a while, shrink for a while
        if (random() % 100 < fill) {
            if (!item.in_tree()) {
                item.key = static_cast<int>(random() % 200); // many equal ones
                ASSERT_EQ(tree.insert(&item), 0);
                model.insert(&item);
            }
        } else {
            ASSERT_EQ(tree.remove(&item), model.erase(&item) ? 0 : -1);
            ASSERT_FALSE(item.in_tree());
        }
        ASSERT_EQ(tree.count(), static_cast<int>(model.size()));
        ASSERT_EQ(tree.first(), model.empty() ? nullptr : *model.begin());
        if (step % 1000) continue;
        ASSERT_EQ(tree.integrity(), 0);
        int i = 0;
        Item* walk = tree.first();
        for (const Item* expected : model) {
            ASSERT_EQ(walk, expected);
            ASSERT_EQ(tree[i++], expected);
            walk = tree.next(walk);
        }
        ASSERT_EQ(walk, nullptr);
    }
}

} // namespace
