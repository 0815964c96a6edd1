// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Diner_info.h"
#include "glue/diner/module_man.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/sl_list.h"

/// The process's list of diners, its event pool and its source of module ids. Any thread; its lock is a leaf: never
/// print the table from a handler that can block on the list.
///
/// Objects built after the first get() die before it, while diners still run: terminate diners before main returns.
class KAV_API Diner_info_list : public module_man {
public:
    /// The one instance, made on first use. Its end asks every diner to terminate and waits for them in passes of 100
    /// ms, without limit; from the 16th pass on it prints "%u out of %u diners still alive\n" on standard error. A
    /// diner whose own thread ends the process counts as gone.
    static Diner_info_list& get();

    void add(Diner_info& info);
    void remove(Diner_info& info); ///< nothing when it is not listed
    /// The status table, to the debug output or to standard output.
    void print(bool to_debug, bool full_path) const;
    /// Diner_info::test_lock() of every diner; a lock held for ever ends in the abort of Mutex.
    void test_lock();
    /// Nothing when `index` is out of range.
    void set_debug_level(int index, unsigned char level);
    /// Print the names of the diners that have not terminated, one per line "  NAME (STATE)\n" on standard error: says
    /// who holds up a shut-down. Returns their number.
    int print_alive() const;

private:
    Diner_info_list() = default;
    ~Diner_info_list();
    int num_alive() const;

    mutable Mutex _mutex;
    c_sl_list<Diner_info> _infos;
};
