// SPDX-License-Identifier: MIT
#pragma once
#include <cstdint>

class Timeout;

/// Timeouts of a manager outside of its tree: a list by their own links, which costs nothing to enter and to leave.
/// With the sorting of great numbers at once it pays from about 100 timeouts in one diner on; below, a tree alone would
/// be as fast. No lock, no ownership; a timeout is in one list or tree at most: those of a list have a parent too,
/// which is no tree's.
class Timeout_list {
public:
    int count() const { return _count; }
    Timeout* first() const { return _first; } ///< null when empty
    void push(Timeout& t);                    ///< in front. O(1)
    void remove(Timeout& t);                  ///< O(1)
    /// Take over all of `o`, in order of expiry, then address; this list is in order already. O(count() + o.count()),
    /// and O(log n) more for each of n equal ones of `o` that were pushed in no order of their addresses.
    void merge_sorted(Timeout_list& o);
    /// The order of merge_sorted().
    static bool before(const Timeout& a, const Timeout& b);

private:
    void sort_for(Timeout_list& owner);
    void sort_by_digit(int shift);
    static Timeout* sort_by_address(Timeout* first, int n);

    Timeout* _first = nullptr;
    int _count = 0;
    int64_t _least = INT64_MAX, _greatest = INT64_MIN; ///< expiries [ms] since it was empty: bounds of those in it
};
