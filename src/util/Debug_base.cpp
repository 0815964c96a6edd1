// SPDX-License-Identifier: MIT
#include "util/Debug_base.h"
#include "util/Debug_print.h"
#include <cstdarg>
#include <cstdio>
#include <cstring>

unsigned char _JDB::current_active[max_active] = {};

template <class Registry, class Category>
int Debug_base<Registry, Category>::get_num_active_filters() {
    int n = 0;
    while (n < Registry::max_active && Registry::current_active[n] != 0) ++n;
    return n;
}

template <class Registry, class Category>
Category Debug_base<Registry, Category>::get_active_filter(int i) {
    if (i < 0 || i >= get_num_active_filters()) return static_cast<Category>(0);
    return static_cast<Category>(Registry::current_active[i]);
}

template <class Registry, class Category>
bool Debug_base<Registry, Category>::_enabled(Category c) {
    for (const unsigned char active : Registry::current_active) {
        if (active == 0) break;
        if (active == c) return true;
    }
    return false;
}

template <class Registry, class Category>
bool Debug_base<Registry, Category>::remove_filter(Category c) {
    if (c == 0) return false;
    int kept = 0;
    for (const unsigned char active : Registry::current_active) {
        if (active != c) Registry::current_active[kept++] = active;
    }
    const bool removed = kept < Registry::max_active;
    while (kept < Registry::max_active) Registry::current_active[kept++] = 0;
    return removed;
}

template <class Registry, class Category>
bool Debug_base<Registry, Category>::add_filter(Category c) {
    if (c == 0) return false;
    remove_filter(c);
    const int n = get_num_active_filters();
    if (n == Registry::max_active) return false;
    Registry::current_active[n] = c;
    return true;
}

template <class Registry, class Category>
void Debug_base<Registry, Category>::set_filters(const char* text) {
    memset(Registry::current_active, 0, sizeof Registry::current_active);
    int n = 0;
    // A line end is looked for only where a pair begins, so one behind an odd digit is jumped over.
    for (; text[0] && text[1] && text[0] != '\n' && text[0] != '\r' && n < Registry::max_active; text += 2) {
        unsigned value;
        if (sscanf(text, "%2X", &value) != 1) break;
        if (value == 0) continue;
        Registry::current_active[n++] = static_cast<unsigned char>(value);
        Debug_print::dprint("add 0x%x\n", value);
    }
}

template <class Registry, class Category>
void Debug_base<Registry, Category>::print(Category c, const char* fmt, ...) {
    if (!enabled(c)) return;
    va_list args;
    va_start(args, fmt);
    Debug_print::vdprint(fmt, args);
    va_end(args);
}

template class Debug_base<_JDB, _JDB::jdb_enum>;
