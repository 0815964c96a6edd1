// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdint>

/// Link of an element of a singly linked list; elements derive from it. No virtual functions.
class KAV_API sll_node {
public:
    sll_node() = default;
    /// A copy of an element is in no list; assigning to an element leaves its link alone.
    sll_node(const sll_node&) {}
    sll_node& operator=(const sll_node&) { return *this; }

    /// What `next` of the last element of a list holds.
    static sll_node* last_mark() { return reinterpret_cast<sll_node*>(~uintptr_t(0)); }
    bool in_list() const { return next != nullptr; }

    sll_node* next = nullptr; ///< null: in no list; all ones: last of its list
};

/// Intrusive first-in first-out list. It owns nothing, allocates nothing and has no lock.
/// An element leaves its list before it dies.
class KAV_API sl_list {
public:
    sl_list() = default;
    sl_list(const sl_list&) = delete;
    sl_list& operator=(const sl_list&) = delete;

    /// Append; 1. An element that is in a list already is a bug report, which ends the process. O(1)
    int push(sll_node* n);
    /// Unlink a given element: 1, or 0 when it is not in this list. O(position)
    int remove(sll_node* n);
    /// Unlink and return the first element, null when empty. O(1)
    sll_node* pop();
    /// Append all elements of `from`, in their order; it is empty then. O(1)
    void push_all(sl_list& from);

    sll_node* operator[](int i) const;       ///< by position from 0, null when out of range. O(i)
    sll_node* first() const;                 ///< null when empty
    sll_node* next(const sll_node* n) const; ///< null at the end
    int size() const { return count; }

    int32_t count = 0;
    sll_node* head = sll_node::last_mark(); ///< all ones when empty
    sll_node* tail = sll_node::last_mark(); ///< all ones when empty
};

/// sl_list that hands back its elements as T, a class derived from sll_node.
template <class T>
class c_sl_list : private sl_list {
public:
    int push(T* n) { return sl_list::push(n); }
    int remove(T* n) { return sl_list::remove(n); }
    T* pop() { return static_cast<T*>(sl_list::pop()); }
    void push_all(c_sl_list& from) { sl_list::push_all(from); }
    T* operator[](int i) const { return static_cast<T*>(sl_list::operator[](i)); }
    T* first() const { return static_cast<T*>(sl_list::first()); }
    T* next(const T* n) const { return static_cast<T*>(sl_list::next(n)); }
    int size() const { return count; }

    class iterator {
    public:
        explicit iterator(sll_node* n) : _at(n) {}
        T& operator*() const { return *static_cast<T*>(_at); }
        iterator& operator++() {
            _at = _at->next;
            return *this;
        }
        bool operator!=(const iterator& o) const { return _at != o._at; }

    private:
        sll_node* _at;
    };
    iterator begin() const { return iterator(head); }
    iterator end() const { return iterator(sll_node::last_mark()); }
};
