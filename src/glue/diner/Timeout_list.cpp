// SPDX-License-Identifier: MIT
#include "glue/diner/Timeout_list.h"
#include "glue/diner/Timeout.h"
#include <algorithm>
#include <functional>

/// The parent of what is in a list. It has none itself, as the header of a tree: who climbs ends there.
static __bsnode mark;

static constexpr int digit_bits = 8; // of a round of sorting: more would take more of a small stack

void Timeout_list::push(Timeout& t) {
    if (!_first) {
        _least = INT64_MAX;
        _greatest = INT64_MIN;
    }
    _least = std::min(_least, t.ms());
    _greatest = std::max(_greatest, t.ms());
    t.parent = &mark;
    t._list = this;
    t._before = nullptr;
    t._after = _first;
    if (_first) _first->_before = &t;
    _first = &t;
    ++_count;
}

void Timeout_list::remove(Timeout& t) {
    (t._before ? t._before->_after : _first) = t._after;
    if (t._after) t._after->_before = t._before;
    t._list = nullptr;
    t.parent = nullptr;
    --_count;
}

bool Timeout_list::before(const Timeout& a, const Timeout& b) {
    return a.ms() != b.ms() ? a.ms() < b.ms() : std::less<>()(&a, &b);
}

void Timeout_list::merge_sorted(Timeout_list& o) {
    o.sort_for(*this);
    Timeout *mine = _first, *others = o._first, *last = nullptr;
    Timeout** end = &_first;
    while (mine && others) {
        Timeout*& least = before(*mine, *others) ? mine : others;
        Timeout* t = least;
        least = t->_after;
        t->_before = last;
        last = *end = t;
        end = &t->_after;
    }
    Timeout* rest = mine ? mine : others;
    if (rest) rest->_before = last;
    *end = rest;
    _count += o._count;
    o._first = nullptr;
    o._count = 0;
}

/// Order what is about to move to `owner`.
void Timeout_list::sort_for(Timeout_list& owner) {
    const auto spread = static_cast<uint64_t>(_greatest - _least);
    for (int shift = 0; shift == 0 || (shift < 64 && spread >> shift != 0); shift += digit_bits) sort_by_digit(shift);
    // Equal ones are in the order of their submission now, which mostly is that of their addresses.
    Timeout* last = nullptr;
    for (Timeout *group = _first, *next; group; group = next) {
        int n = 1;
        bool ascending = true;
        Timeout* t = group;
        for (; (next = t->_after) && next->ms() == group->ms(); t = next, ++n) ascending &= std::less<>()(t, next);
        if (!ascending) (last ? last->_after : _first) = group = sort_by_address(group, n);
        for (t = group; n > 0; t = t->_after, --n) {
            t->_list = &owner;
            t->_before = last;
            last = t;
        }
        last->_after = next;
    }
}

/// The first `n` from `first` on, in order; their last one is followed by none.
Timeout* Timeout_list::sort_by_address(Timeout* first, int n) {
    if (n == 1) {
        first->_after = nullptr;
        return first;
    }
    Timeout* middle = first;
    for (int i = 0; i < n / 2; ++i) middle = middle->_after;
    Timeout *a = sort_by_address(first, n / 2), *b = sort_by_address(middle, n - n / 2), *sorted;
    Timeout** end = &sorted;
    while (a && b) {
        Timeout*& least = std::less<>()(a, b) ? a : b;
        *end = least;
        end = &least->_after;
        least = *end;
    }
    *end = a ? a : b;
    return sorted;
}

/// One round of a radix sort: by some bits of what the expiry is above the least, keeping the order of equal digits.
/// The first round turns the list round: what was pushed first comes first. By the links to the one behind alone.
void Timeout_list::sort_by_digit(int shift) {
    struct Run {
        Timeout *first, *last;
    };
    Run runs[1 << digit_bits] = {};
    for (Timeout *t = _first, *next; t; t = next) {
        next = t->_after;
        Run& r = runs[static_cast<uint64_t>(t->ms() - _least) >> shift & ((1 << digit_bits) - 1)];
        if (!r.first) {
            r.first = r.last = t;
        } else if (shift == 0) {
            t->_after = r.first;
            r.first = t;
        } else {
            r.last = r.last->_after = t;
        }
    }
    Timeout** end = &_first;
    for (const Run& r : runs) {
        if (!r.first) continue;
        *end = r.first;
        end = &r.last->_after;
    }
    *end = nullptr;
}
