// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdint>
#include <cstring>

/// Links of an element of an intrusive tree. Elements derive from avl_bsnode; no virtual functions.
/// A copy is in no tree; assigning to an element leaves its links alone.
class KAV_API __bsnode {
public:
    __bsnode() = default;
    __bsnode(const __bsnode&) {}
    __bsnode& operator=(const __bsnode&) { return *this; }

    bool in_tree() const { return parent != nullptr; }

    __bsnode* parent = nullptr;  ///< the root's parent is the tree's header; null: in no tree
    __bsnode* less = nullptr;    ///< all keys less, or equal at a lower address
    __bsnode* greater = nullptr; ///< all keys greater, or equal at a higher address
};

template <class Node>
class bsnode : public __bsnode {};

class KAV_API avl_bsnode : public bsnode<avl_bsnode> {
public:
    avl_bsnode() = default;
    avl_bsnode(const avl_bsnode& o) : bsnode<avl_bsnode>(o) {}
    avl_bsnode& operator=(const avl_bsnode&) { return *this; }
    /// Debug builds of the library report an element destroyed while linked, on the debug output.
    ~avl_bsnode() {
        if (parent) linked_node_destroyed(this);
    }

    int32_t balance = 0; ///< height of the greater subtree minus height of the less subtree: -1, 0, +1
    int32_t rank = 0;    ///< 1 + number of elements in the less subtree

private:
    static void linked_node_destroyed(const avl_bsnode* n);
};

/// What find() and nearby() look for, relative to a key.
enum bstree_cond_t {
    bst_less = 0,
    bst_less_equal = 1,
    bst_equal = 2,
    bst_greater = 3,
    bst_greater_equal = 4,
    bst_this = 5 ///< this very element: equal, and at the same address
};

/// Intrusive order-statistic AVL tree: it finds an element by key and by its position in sort order, both in O(log n),
/// and never allocates. Several elements may have equal keys; they stand in the order of their addresses.
///
///               header                 rank 1, greater link = root
///                  \                   .
///                   d  rank 4, balance -1
///                  / \                 .
///         rank 2  b   e  rank 1, 0     first = a
///                / \                   .
///       rank 1  a   c  rank 1
///
/// No lock and no ownership: whoever holds the tree guards it. The key of an element must not change while it is in a
/// tree, and an element leaves its tree before it dies. The tree may die with elements in it; they stay linked.
class KAV_API avl_bstree {
public:
    /// Negative, 0, positive as `a` sorts before, at or after `b`.
    using Order = int (*)(__bsnode const* a, __bsnode const* b);

    /// Searches by something that is not an element.
    class KAV_API Searcher {
    public:
        /// Negative, 0, positive as `n` sorts before, at or after the sought key.
        virtual int compare(avl_bsnode const* n) const = 0;

    protected:
        ~Searcher() = default;
    };

    avl_bstree();
    virtual ~avl_bstree();
    avl_bstree(const avl_bstree&) = delete;
    avl_bstree& operator=(const avl_bstree&) = delete;

    /// The order of the tree: the compare pointer, else default_compare().
    virtual int mycompare(avl_bsnode const* a, avl_bsnode const* b) const;
    /// Used without a compare pointer. Here a bug report.
    virtual int default_compare(avl_bsnode const* a, avl_bsnode const* b) const;
    /// The total order that places elements: mycompare(), then the address; 0 only for the same element.
    int mycompare2(avl_bsnode const* a, avl_bsnode const* b) const;

    /// Forget the contents and set the compare pointer (null in the first form). 0.
    int create();
    int create(Order cmp);
    /// Forget the contents without touching the elements: use flush() when there are any.
    void init();

    /// 0; -1 when the element is already in this place. An element that is in a tree is a bug report. O(log n)
    int insert(avl_bsnode* n) { return insert(n, own_order()); }
    /// 0; -1 when the element is not in this tree, which then stays as it was. O(log n)
    int remove(avl_bsnode const* n) { return remove(n, own_order()); }
    /// The element that meets `cond` relative to `key` (or to what `searcher` seeks), else null. `index` receives the
    /// position of the last element visited, -1 for an empty tree. With equal keys bst_less and bst_less_equal go by
    /// nearby(), which may give an equal one. O(log n)
    avl_bsnode* find(avl_bsnode const* key, bstree_cond_t cond, int* index = nullptr,
                     Searcher* searcher = nullptr) const {
        return find(key, cond, index, searcher, own_order());
    }
    /// The neighbour of an element of the tree that meets `cond`; null when there is none, the element is in no tree or
    /// cond is bst_this. A subtree's outermost element is taken without a comparison. O(log n)
    avl_bsnode* nearby(avl_bsnode const* node, bstree_cond_t cond) const;

    avl_bsnode* next(avl_bsnode const* n) const;     ///< null at the end. O(log n), O(1) on average
    avl_bsnode* previous(avl_bsnode const* n) const; ///< null at the start. O(log n), O(1) on average
    avl_bsnode* operator[](int i) const;             ///< by position in sort order from 0; null out of range. O(log n)
    /// Take every element out, without comparing: works even when keys were corrupted. O(n)
    void flush();

    int integrity() const;           ///< 0 sound, -1 broken. O(n log n)
    int height(avl_bsnode* n) const; ///< of a subtree, 0 for null, -1 when it is broken. O(n)
    void dump_tree() const;          ///< "top: " on standard output, the nodes on standard error
    void dump_node(avl_bsnode const* n, int depth) const;

protected:
    /// The operations with the order given by the caller, so that a comparison costs one indirect call; null: ask
    /// mycompare(). It must be the order that mycompare() has, because nearby() and integrity() ask that.
    int insert(avl_bsnode* n, Order order);
    int remove(avl_bsnode const* n, Order order);
    avl_bsnode* find(avl_bsnode const* key, bstree_cond_t cond, int* index, Searcher* searcher, Order order) const;
    /// Whether the class of this object has overridden neither mycompare() nor default_compare() of that of `o`: by
    /// the tables of virtual functions, in which these two follow the two destructors. False for an `o` that is not
    /// constructed yet.
    bool compares_like(const avl_bstree& o) const {
        void* const* mine;
        void* const* others;
        memcpy(&mine, static_cast<const void*>(this), sizeof mine);
        memcpy(&others, static_cast<const void*>(&o), sizeof others);
        return mine == others || (others && mine[2] == others[2] && mine[3] == others[3]);
    }

private:
    Order own_order() const;

public:
    Order compare; ///< null unless set by create(cmp)
    avl_bsnode header;
    int32_t count;     ///< number of elements
    avl_bsnode* first; ///< least element, null when empty
};

/// avl_bstree of T, a class derived from avl_bsnode. `Tree` is avl_bstree.
///
///     static int by_id(const Item* a, const Item* b);
///     c_bstree<avl_bstree, Item> items;
///     items.create<by_id>();
///     items.insert(&item);
///     for (Item& i : items) ...
template <class Tree, class T>
class c_bstree : public Tree {
public:
    /// Forget the contents and set T's order. Must be called before use. 0.
    int create(typename Tree::Order cmp) {
        _typed = cmp;
        return Tree::create();
    }
    /// The same with a comparison of T itself.
    template <int (*cmp)(const T*, const T*)>
    int create() {
        return create([](__bsnode const* a, __bsnode const* b) {
            return cmp(static_cast<T const*>(static_cast<avl_bsnode const*>(a)),
                       static_cast<T const*>(static_cast<avl_bsnode const*>(b)));
        });
    }

    /// T's order; ends the process with exit(-154) when create() was not called.
    int default_compare(avl_bsnode const* a, avl_bsnode const* b) const override;

    int insert(T* e) { return Tree::insert(e, own_order()); }
    int remove(T const* e) { return Tree::remove(e, own_order()); }
    T* find(T const* key, bstree_cond_t cond, int* index = nullptr, typename Tree::Searcher* searcher = nullptr) const {
        return as_t(Tree::find(key, cond, index, searcher, own_order()));
    }
    T* nearby(T const* e, bstree_cond_t cond) const { return as_t(Tree::nearby(e, cond)); }
    T* operator[](int i) const { return as_t(Tree::operator[](i)); }
    T* first() const { return as_t(Tree::first); }
    T* next(T const* e) const { return as_t(Tree::next(e)); }
    T* previous(T const* e) const { return as_t(Tree::previous(e)); }
    int count() const { return Tree::count; }
    /// `e` for change; it must be in no tree, else the process ends with exit(-154).
    T* get_mutable(T* e) const;

    class iterator {
    public:
        iterator(const c_bstree* tree, T* at) : _tree(tree), _at(at) {}
        T& operator*() const { return *_at; }
        iterator& operator++() {
            _at = _tree->next(_at);
            return *this;
        }
        bool operator!=(const iterator& o) const { return _at != o._at; }

    private:
        const c_bstree* _tree;
        T* _at;
    };
    iterator begin() const { return iterator(this, first()); }
    iterator end() const { return iterator(this, nullptr); }

private:
    static T* as_t(avl_bsnode* n) { return static_cast<T*>(n); }
    /// What mycompare() comes to when nothing is overridden, else null.
    typename Tree::Order own_order() const {
        if (!Tree::compares_like(_plain)) return nullptr;
        return Tree::compare ? Tree::compare : _typed;
    }

    typename Tree::Order _typed = nullptr;
    static const c_bstree _plain; ///< empty; of this class and no derived one
};

template <class Tree, class T>
const c_bstree<Tree, T> c_bstree<Tree, T>::_plain;

namespace Util {
/// Prints `text` on the debug output and ends the process with exit(-154), which a parent sees as 102.
[[noreturn]] KAV_API void tree_misuse(const char* text);
} // namespace Util

template <class Tree, class T>
int c_bstree<Tree, T>::default_compare(avl_bsnode const* a, avl_bsnode const* b) const {
    if (!_typed) Util::tree_misuse("c_bstree::create not called");
    return _typed(a, b);
}

template <class Tree, class T>
T* c_bstree<Tree, T>::get_mutable(T* e) const {
    if (e->in_tree()) Util::tree_misuse("c_bstree::get_mutable(): already in T::");
    return e;
}
