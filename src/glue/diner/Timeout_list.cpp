// SPDX-License-Identifier: MIT
#include "glue/diner/Timeout_list.h"
#include "glue/diner/Timeout.h"
#include <algorithm>

/// The parent of what is in a list. It has none itself, as the header of a tree: who climbs ends there.
static __bsnode mark;

void Timeout_list::push(Timeout& t) {
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

void Timeout_list::merge_sorted(Timeout_list& o) {
    o.sort_for(*this);
    Timeout *mine = _first, *others = o._first, *before = nullptr;
    Timeout** end = &_first;
    while (mine && others) {
        Timeout*& least = mine->ms() <= others->ms() ? mine : others;
        Timeout* t = least;
        least = t->_after;
        t->_before = before;
        before = *end = t;
        end = &t->_after;
    }
    Timeout* rest = mine ? mine : others;
    if (rest) rest->_before = before;
    *end = rest;
    _count += o._count;
    o._first = nullptr;
    o._count = 0;
}

/// Order what is about to move to `owner`.
void Timeout_list::sort_for(Timeout_list& owner) {
    int64_t least = INT64_MAX, greatest = INT64_MIN;
    for (Timeout* t = _first; t; t = t->_after) {
        t->_list = &owner;
        least = std::min(least, t->ms());
        greatest = std::max(greatest, t->ms());
    }
    for (int shift = 0; _first && (greatest - least) >> shift != 0; shift += 8) sort_by_digit(least, shift);
}

/// One round of a radix sort: by eight bits of what the expiry is above `least`, keeping the order of equal digits.
void Timeout_list::sort_by_digit(int64_t least, int shift) {
    struct Run {
        Timeout *first = nullptr, *last = nullptr;
        void append(Timeout* from, Timeout* to) {
            (last ? last->_after : first) = from;
            from->_before = last;
            last = to;
        }
    };
    Run runs[256], all;
    for (Timeout *t = _first, *next; t; t = next) {
        next = t->_after;
        runs[static_cast<uint64_t>(t->ms() - least) >> shift & 255].append(t, t);
    }
    for (const Run& r : runs) {
        if (r.first) all.append(r.first, r.last);
    }
    all.last->_after = nullptr;
    _first = all.first;
}
