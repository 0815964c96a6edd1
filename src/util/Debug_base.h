// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"

/// The debug categories of the library. A category's number is what `set_filters` reads as two hex digits.
struct KAV_API _JDB {
    enum jdb_enum : unsigned char {
        jdb_none = 0,           ///< ends the list; never a category
        jdb_mspace = 20,        ///< failed allocations in memory spaces
        jdb_mutex_lenient = 43, ///< a mutex found in the wrong state does not abort
        jdb_mutex_quiet = 44,   ///< a mutex found in the wrong state is not reported
        jdb_timeout = 50,       ///< the timeout lists of a diner, at every change
        jdb_receiver = 60,      ///< field access outside a receiver message
        jdb_diagnostics = 61    ///< the diagnostic history
    };
    static constexpr int max_active = 6;
    /// The active categories, packed from the front; a 0 ends the list.
    static unsigned char current_active[max_active];
};

/// Filter of debug categories over `Registry::current_active`. All members are static. Meant to be set at start-up;
/// reading is safe from any thread as long as nobody writes.
template <class Registry, class Category>
class Debug_base {
public:
    /// Number of active categories, 0..6.
    static int get_num_active_filters();
    /// The i-th active category, 0 when `i` is out of range.
    static Category get_active_filter(int i);
    static bool _enabled(Category c);
    static bool _enabled(int c) { return _enabled(static_cast<Category>(c)); }
    static bool enabled(Category c) { return _enabled(c); }
    /// Take every occurrence out; true if there was one. False for 0, which is no category.
    static bool remove_filter(Category c);
    /// Put at the end (an active one moves there); false when all 6 places are taken or `c` is 0.
    static bool add_filter(Category c);
    /// Replace the list by pairs of hex digits, e.g. "0A00ff": ends at the text's end or at a line end that is met
    /// where a pair would begin; pairs of value 0 are skipped, the sixth category ends the reading. Each category taken
    /// is printed as "add 0x%x\n".
    static void set_filters(const char* text);
    /// Formatted output (255 characters) when the category is active.
    static void print(Category c, const char* fmt, ...) KAV_PRINTF(2, 3);
};

extern template class KAV_API Debug_base<_JDB, _JDB::jdb_enum>;
/// The filter that the library uses.
using Debug_filter = Debug_base<_JDB, _JDB::jdb_enum>;
