// SPDX-License-Identifier: MIT
#include "glue/diner/Timeout_list.h"
#include "glue/diner/Timeout.h"
#include <algorithm>

void Timeout_list::push(Timeout& t) {
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
    --_count;
}

void Timeout_list::merge_sorted(Timeout_list& o) {
    o.sort();
    Timeout *mine = _first, *others = o._first, *before = nullptr;
    Timeout** end = &_first;
    while (mine || others) {
        Timeout*& least = !others || (mine && mine->ms() <= others->ms()) ? mine : others;
        Timeout* t = least;
        least = t->_after;
        t->_list = this;
        t->_before = before;
        before = *end = t;
        end = &t->_after;
    }
    *end = nullptr;
    _count += o._count;
    o._first = nullptr;
    o._count = 0;
}

/// By `_after` only.
void Timeout_list::sort() {
    int64_t least = INT64_MAX, greatest = INT64_MIN;
    for (const Timeout* t = _first; t; t = t->_after) {
        least = std::min(least, t->ms());
        greatest = std::max(greatest, t->ms());
    }
    for (int shift = 0; _first && (greatest - least) >> shift != 0; shift += 8) sort_by_digit(least, shift);
}

/// One round of a radix sort: by eight bits of what the expiry is above `least`, keeping the order of equal digits.
void Timeout_list::sort_by_digit(int64_t least, int shift) {
    constexpr size_t digits = 256;
    Timeout* heads[digits];
    Timeout** ends[digits];
    for (size_t i = 0; i < digits; ++i) ends[i] = &heads[i];
    for (Timeout* t = _first; t; t = t->_after) {
        Timeout**& end = ends[static_cast<uint64_t>(t->ms() - least) >> shift & (digits - 1)];
        *end = t;
        end = &t->_after;
    }
    Timeout** end = &_first;
    for (size_t i = 0; i < digits; ++i) {
        if (ends[i] == &heads[i]) continue;
        *end = heads[i];
        end = ends[i];
    }
    *end = nullptr;
}
