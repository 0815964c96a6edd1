// SPDX-License-Identifier: MIT
#include "util/avl_bstree.h"
#include "util/Bugger.h"
#include "util/Debug_print.h"
#include "util/pick.h"
#include <algorithm>
#include <cstdio>
#include <cstdlib>

// The board's applications were laid out with these sizes.
static_assert(sizeof(void*) != 4 || sizeof(avl_bsnode) == 20);
static_assert(sizeof(void*) != 4 || sizeof(avl_bstree) == 36);
static_assert(sizeof(void*) != 4 || sizeof(c_bstree<avl_bstree, avl_bsnode>) == 40);

// A side of a node is told by the sign that its balance has when that side is the higher one.
static constexpr int LESS = -1;
static constexpr int GREATER = +1;

static avl_bsnode* as_avl(__bsnode* n) { return static_cast<avl_bsnode*>(n); }

static avl_bsnode* child(avl_bsnode const* n, int side) { return as_avl(Util::pick(side < 0, n->less, n->greater)); }

/// One step down a search: one child is picked, after both were fetched while the comparison ran (prefetch_children).
static avl_bsnode* step_down(avl_bsnode const* n, bool to_greater) {
    return as_avl(Util::pick(to_greater, n->greater, n->less));
}

/// Worth 15 % of a search among 100,000 elements and 6 % among 10,000; among 1000 it costs 7 %.
static void prefetch_children(avl_bsnode const* n) {
    __builtin_prefetch(n->less);
    __builtin_prefetch(n->greater);
}

/// Which child of its parent `n` is. The root is the greater one of the header.
static int side_of(__bsnode const* n) { return n->parent->less == n ? LESS : GREATER; }

static void set_child(__bsnode* parent, int side, __bsnode* n) {
    *Util::pick(side < 0, &parent->less, &parent->greater) = n;
    if (n) n->parent = parent;
}

static avl_bsnode* outermost(__bsnode* n, int side) {
    while (avl_bsnode* further = child(as_avl(n), side)) n = further;
    return as_avl(n);
}

/// `with`, or nothing, takes the place of `n` below n's parent.
static void replace(__bsnode* n, __bsnode* with) { set_child(n->parent, side_of(n), with); }

/// The child of `p` on `side` rises into p's place, and p becomes its child on the other side.
static void rotate(avl_bsnode* p, int side) {
    avl_bsnode* up = child(p, side);
    replace(p, up);
    set_child(p, side, child(up, -side));
    set_child(up, -side, p);
    if (side == GREATER) {
        up->rank += p->rank; // p and what is less than p came before it
    } else {
        p->rank -= up->rank; // up and what is less than up left p's less subtree
    }
}

/// Restore the balance of `p`, which is higher by two on `side`. Returns the node now in its place; when that one's
/// balance is 0, the subtree has become lower by one.
static avl_bsnode* rebalance(avl_bsnode* p, int side) {
    avl_bsnode* up = child(p, side);
    if (up->balance != -side) {
        rotate(p, side);
        p->balance = up->balance == side ? 0 : side; // an even child occurs only after a removal
        up->balance = -p->balance;
        return up;
    }
    avl_bsnode* top = child(up, -side);
    rotate(up, -side);
    rotate(p, side);
    p->balance = top->balance == side ? -side : 0;
    up->balance = top->balance == -side ? side : 0;
    top->balance = 0;
    return top;
}

/// `n` is a new leaf. What is above it has become higher by one, up to the deepest node that leaned to a side.
static void grow(avl_bsnode const* header, avl_bsnode* n) {
    for (avl_bsnode *at = n, *up; (up = as_avl(at->parent)) != header; at = up) {
        if (!up) { // an element on the path was cleared while in the tree
            Debug_print::dprint("NULL in avl_bstree\r\n");
            return;
        }
        const int side = side_of(at);
        if (up->balance == 0) {
            up->balance = side;
            continue;
        }
        if (up->balance == side) {
            rebalance(up, side);
        } else {
            up->balance = 0;
        }
        return;
    }
}

/// The subtree of `p` on `side` has become lower by one.
static void shrink(avl_bsnode* p, int side) {
    while (p->parent) { // up to the header
        avl_bsnode* up = as_avl(p->parent);
        const int next_side = side_of(p);
        if (p->balance == -side) {
            if (rebalance(p, -side)->balance != 0) return;
        } else {
            p->balance -= side;
            if (p->balance != 0) return;
        }
        p = up;
        side = next_side;
    }
}

/// mycompare2() with the caller's order. Put into every search: the compiler by itself would call it, at each step.
[[gnu::always_inline]] static inline int total_order(avl_bstree const& tree, avl_bsnode const* a, avl_bsnode const* b,
                                                     avl_bstree::Order order) {
    const int c = __builtin_expect(order != nullptr, 1) ? order(a, b) : tree.mycompare(a, b);
    if (__builtin_expect(c != 0, 1)) return c;
    const auto at_a = reinterpret_cast<uintptr_t>(a), at_b = reinterpret_cast<uintptr_t>(b);
    return (at_a > at_b) - (at_a < at_b);
}

/// Go the way from the root to the place of `n` and add `change` to the rank of each node that it leaves to the less
/// side. Returns whether n was there.
static bool change_ranks(avl_bstree const& tree, avl_bsnode const* n, int change, avl_bstree::Order order) {
    for (avl_bsnode* at = as_avl(tree.header.greater); at;) {
        prefetch_children(at);
        const int c = total_order(tree, at, n, order);
        if (c == 0) return true;
        at->rank += Util::value_if(c > 0, change);
        at = step_down(at, c < 0);
    }
    return false;
}

#ifdef NDEBUG
void avl_bsnode::linked_node_destroyed(const avl_bsnode*) {}
#else
void avl_bsnode::linked_node_destroyed(const avl_bsnode* n) {
    Debug_print::dprint("avl_bsnode %p destroyed while in a tree\n", static_cast<const void*>(n));
}
#endif

void Util::tree_misuse(const char* text) {
    Debug_print::try_print("%s", text);
    exit(-154);
}

static const avl_bstree plain;

avl_bstree::Order avl_bstree::own_order() const { return compares_like(plain) ? compare : nullptr; }

avl_bstree::avl_bstree() : compare(nullptr) { init(); }

// The elements stay linked: they may be gone already, and so is the order that a derived tree gave.
avl_bstree::~avl_bstree() = default;

int avl_bstree::create() { return create(nullptr); }

int avl_bstree::create(Order cmp) {
    compare = cmp;
    init();
    return 0;
}

void avl_bstree::init() {
    header.parent = header.less = header.greater = nullptr;
    header.balance = 0;
    header.rank = 1;
    count = 0;
    first = nullptr;
}

int avl_bstree::mycompare(avl_bsnode const* a, avl_bsnode const* b) const {
    return compare ? compare(a, b) : default_compare(a, b);
}

int avl_bstree::default_compare(avl_bsnode const*, avl_bsnode const*) const {
    Bugger::report_bug("avl_bstree::create not called");
}

int avl_bstree::mycompare2(avl_bsnode const* a, avl_bsnode const* b) const { return total_order(*this, a, b, nullptr); }

int avl_bstree::insert(avl_bsnode* n, Order order) {
    if (n->in_tree()) Bugger::report_bug("avl_bstree::insert, already in a tree.");
    n->less = n->greater = nullptr;
    n->balance = 0;
    n->rank = 1;

    avl_bsnode* parent = &header;
    int c = -1; // `parent` sorts before or after n
    for (avl_bsnode* at = as_avl(header.greater); at; at = step_down(at, c < 0)) {
        prefetch_children(at);
        c = total_order(*this, at, n, order);
        if (c == 0) { // only an element that was cleared while in the tree meets itself
            change_ranks(*this, n, -1, order);
            return -1;
        }
        at->rank += c > 0;
        parent = at;
    }
    const int side = c > 0 ? LESS : GREATER;
    set_child(parent, side, n);
    ++count;
    if (!first || (parent == first && side == LESS)) first = n;
    grow(&header, n);
    return 0;
}

int avl_bstree::remove(avl_bsnode const* element, Order order) {
    if (!element->in_tree()) return -1;
    if (!change_ranks(*this, element, -1, order)) {
        change_ranks(*this, element, +1, order);
        return -1;
    }
    avl_bsnode* n = const_cast<avl_bsnode*>(element);
    --count;
    if (n == first) {
        avl_bsnode* up = as_avl(n->parent);
        first = n->greater ? as_avl(n->greater) : up == &header ? nullptr : up;
    }

    avl_bsnode* lower = as_avl(n->parent); // where a subtree becomes lower, and on which side
    int side = side_of(n);
    if (!n->less) {
        replace(n, n->greater);
    } else {
        // The predecessor takes n's place, not the successor: elements with equal keys keep their order.
        avl_bsnode* before = outermost(n->less, GREATER);
        if (before == n->less) {
            lower = before;
            side = LESS;
        } else {
            lower = as_avl(before->parent);
            side = GREATER;
            replace(before, before->less);
            set_child(before, LESS, n->less);
        }
        set_child(before, GREATER, n->greater);
        before->balance = n->balance;
        before->rank = n->rank - 1;
        replace(n, before);
    }
    n->parent = nullptr;
    shrink(lower, side);
    return 0;
}

/// Where a search ended.
struct Visit {
    avl_bsnode* last; ///< null in an empty tree
    int c;            ///< `last` sorts before, at or after the key
    int position;     ///< of `last`
};

/// Search from the root by `compare(node)`.
template <class Compare>
static Visit descend(avl_bsnode* root, Compare compare) {
    avl_bsnode* last = nullptr;
    int c = 0;
    int before = 0; // number of elements known to sort before the key
    for (avl_bsnode* at = root; at; at = step_down(at, c < 0)) {
        prefetch_children(at);
        last = at;
        c = compare(at);
        if (c == 0) break;
        before += Util::value_if(c < 0, at->rank);
    }
    return {last, c, (last && c >= 0 ? before + last->rank : before) - 1};
}

avl_bsnode* avl_bstree::find(avl_bsnode const* key, bstree_cond_t cond, int* index, Searcher* searcher,
                             Order order) const {
    avl_bsnode* const root = as_avl(header.greater);
    Visit v;
    if (searcher) {
        v = descend(root, [=](avl_bsnode const* at) { return searcher->compare(at); });
    } else if (cond == bst_this) {
        v = descend(root, [=](avl_bsnode const* at) { return total_order(*this, at, key, order); });
    } else {
        v = descend(root, [=](avl_bsnode const* at) { return order ? order(at, key) : mycompare(at, key); });
    }
    if (index) *index = v.position;
    if (!v.last) return nullptr;
    switch (cond) {
    case bst_less_equal:
        if (v.c == 0) return v.last;
        [[fallthrough]];
    case bst_less:
        return v.c < 0 ? v.last : nearby(v.last, bst_less);
    case bst_greater_equal:
        if (v.c == 0) return v.last;
        [[fallthrough]];
    case bst_greater:
        return v.c > 0 ? v.last : nearby(v.last, bst_greater);
    case bst_equal:
    case bst_this:
        return v.c == 0 ? v.last : nullptr;
    }
    return nullptr;
}

avl_bsnode* avl_bstree::nearby(avl_bsnode const* node, bstree_cond_t cond) const {
    if (!node || !node->in_tree()) return nullptr;
    const bool or_equal = cond == bst_less_equal || cond == bst_greater_equal;
    int side;
    switch (cond) {
    case bst_less:
    case bst_less_equal:
        side = LESS;
        break;
    case bst_greater:
    case bst_greater_equal:
        side = GREATER;
        break;
    case bst_equal:
        return const_cast<avl_bsnode*>(node);
    default:
        return nullptr;
    }
    if (avl_bsnode* n = child(node, side)) return outermost(n, -side);
    for (avl_bsnode* up = as_avl(node->parent); up->parent; up = as_avl(up->parent)) {
        const int c = mycompare(up, node);
        if ((or_equal && c == 0) || (side == LESS ? c < 0 : c > 0)) return up;
    }
    return nullptr;
}

/// The next element towards `side`. Only the header of a tree has no parent.
static avl_bsnode* neighbour(avl_bsnode const* n, int side) {
    if (!n->in_tree()) return nullptr;
    if (avl_bsnode* further = child(n, side)) return outermost(further, -side);
    for (__bsnode const* at = n; at->parent->parent; at = at->parent) {
        if (side_of(at) != side) return as_avl(at->parent);
    }
    return nullptr;
}

avl_bsnode* avl_bstree::next(avl_bsnode const* n) const { return neighbour(n, GREATER); }

avl_bsnode* avl_bstree::previous(avl_bsnode const* n) const { return neighbour(n, LESS); }

avl_bsnode* avl_bstree::operator[](int i) const {
    if (i < 0 || i >= count) return nullptr;
    int rank = i + 1;
    avl_bsnode* at = as_avl(header.greater);
    while (at && at->rank != rank) {
        prefetch_children(at);
        const bool further = at->rank < rank;
        rank -= Util::value_if(further, at->rank);
        at = step_down(at, further);
    }
    return at;
}

void avl_bstree::flush() {
    // Leaves first. Each link is cleared before it is followed, so that even a corrupted tree comes to an end.
    for (__bsnode* at = header.greater; at && at != &header;) {
        __bsnode*& link = at->less ? at->less : at->greater;
        __bsnode* to = link;
        if (to) {
            link = nullptr;
        } else {
            to = at->parent;
            at->parent = nullptr;
        }
        at = to;
    }
    init();
}

int avl_bstree::integrity() const {
    avl_bsnode* root = as_avl(header.greater);
    if (root && root->parent != &header) return -1;
    if (height(root) < 0) return -1;
    for (int i = 0; i + 1 < count; ++i) {
        avl_bsnode* a = (*this)[i];
        avl_bsnode* b = (*this)[i + 1];
        if (!a || !b || mycompare2(a, b) >= 0 || mycompare2(b, a) <= 0) return -1;
        int index;
        if (!find(a, bst_this, &index) || index != i) return -1;
    }
    return 0;
}

int avl_bstree::height(avl_bsnode* n) const {
    if (!n) return 0;
    if (!first || mycompare(n, first) < 0) return -1;
    int heights[2] = {};
    for (int side : {LESS, GREATER}) {
        avl_bsnode* sub = child(n, side);
        if (!sub) continue;
        const int c = mycompare2(sub, n);
        if (sub->parent != n || (side == LESS ? c >= 0 : c <= 0)) return -1;
        const int h = height(sub);
        if (h < 0) return -1;
        heights[side == GREATER] = h;
    }
    const int lean = heights[1] - heights[0];
    if (lean < -1 || lean > 1 || lean != n->balance) return -1;
    return 1 + std::max(heights[0], heights[1]);
}

void avl_bstree::dump_tree() const {
    printf("top: ");
    dump_node(&header, 0);
}

void avl_bstree::dump_node(avl_bsnode const* n, int depth) const {
    if (!n) return;
    if (!n->less && !n->greater) {
        fprintf(stderr, "leaf node at depth %i\n", depth);
        return;
    }
    // The header is no element: the user's comparison could not read it.
    const auto compared = [&](__bsnode* sub) { return !sub ? 0 : n == &header ? 1 : mycompare2(as_avl(sub), n); };
    fprintf(stderr, "depth %i, less: (%i,%p), greater: (%i,%p)\n", depth, compared(n->less),
            static_cast<const void*>(n->less), compared(n->greater), static_cast<const void*>(n->greater));
    fprintf(stderr, "less: ");
    dump_node(as_avl(n->less), depth + 1);
    fprintf(stderr, "greater: ");
    dump_node(as_avl(n->greater), depth + 1);
}
