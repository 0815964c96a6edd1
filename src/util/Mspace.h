// SPDX-License-Identifier: MIT
#pragma once
#include "util/Debug_dumper.h"
#include "util/api.h"
#include "util/sl_list.h"

class Mspace_manager;

/// A named heap in a fixed region that the caller supplies, so that one part of an application cannot use up another's
/// memory. The region never grows. Any thread may allocate and free.
///
/// The manager keeps listing it, so its memory lasts as long as the process. One that was destroyed has no heap any
/// more.
class KAV_API Mspace : public sll_node {
public:
    /// Make the heap in `size` [bytes] at `base` and enter it in the process's list. About 1 KB goes to the allocator;
    /// in a region too small for it every allocation fails. `name` is not copied.
    Mspace(void* base, unsigned int size, const char* name);
    ~Mspace();
    Mspace(const Mspace&) = delete;
    Mspace& operator=(const Mspace&) = delete;

    /// Null when there is no room; reported on the debug output when category 20 is on.
    void* malloc(unsigned int n) const;
    /// The same, for operator new.
    void* malloc_for_new(unsigned int n) const { return malloc(n); }
    void free(void* p) const; ///< null is ignored
    void* realloc(void* p, unsigned int n) const;
    /// A group named after the space with "fixed_space", "free_chunks", "max_alloc", "total_alloc", "total_free" and
    /// "releasable", hexadecimal; nothing without a heap.
    void print_usage(Debug::Dumper& dumper) const;
    const char* get_name() const { return _name; }
    void* get_base() const { return _base; }

private:
    // Volatile, so that the compiler keeps the last stores of the destructor: the manager goes on asking.
    void* volatile _heap;
    void* _base;
    volatile unsigned int _size; ///< [bytes]
    const char* _name;
    Mspace_manager* _manager;
};

/// The memory spaces of the process. Filled at start-up, only read afterwards; no lock.
class KAV_API Mspace_manager {
public:
    static Mspace_manager& get(); ///< the process's own, made on first use

    /// Null is ignored; a space that is listed already is a bug report.
    void add(Mspace* space);
    void print_usage(Debug::Dumper& dumper) const;
    static void print_global_usage(Debug::Dumper& dumper);

private:
    c_sl_list<Mspace> _spaces;
};
