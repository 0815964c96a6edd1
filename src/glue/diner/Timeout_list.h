// SPDX-License-Identifier: MIT
#pragma once
#include <cstdint>

class Timeout;

/// Pending timeouts of a manager outside of its trees: a list by their own links, which costs nothing to enter and to
/// leave. With the sorting of great numbers at once it pays from about 100 timeouts in one diner on; below, a tree
/// alone would be as fast. No lock, no ownership; a timeout is in one list or tree at most: those of a list have a
/// parent too, which is no tree's.
class Timeout_list {
public:
    int count() const { return _count; }
    Timeout* first() const { return _first; } ///< null when empty
    void push(Timeout& t);                    ///< in front. O(1)
    void remove(Timeout& t);                  ///< O(1)
    /// Take over all of `o`, in order of expiry; this list is in order already. Equal ones come in any order.
    /// O(count() + o.count())
    void merge_sorted(Timeout_list& o);

private:
    void sort_for(Timeout_list& owner);
    void sort_by_digit(int64_t least, int shift);

    Timeout* _first = nullptr;
    int _count = 0;
};
