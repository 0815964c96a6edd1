// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Diner_info.h"
#include "glue/diner/module_man.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/sl_list.h"
#include <atomic>
#include <functional>

/// The process's list of diners, its event pool and its source of module ids. Any thread, but no handler: the lock of
/// the list is taken before those of diners (docs/architecture.md). Only clock_stepped() is meant for handlers.
///
/// Objects built after the first get() die before it, while diners still run: terminate diners before main returns.
/// Diners built before it may be left to it.
class KAV_API Diner_info_list : public module_man {
public:
    /// The one instance, made on first use. Its end asks every diner to terminate and waits for them in passes of 100
    /// ms, without limit; from the 16th pass on it prints "%u out of %u diners still alive\n" on standard error. When
    /// it is over, no diner's thread touches its diner any more. A diner whose own thread ends the process counts as
    /// gone.
    static Diner_info_list& get();

    void add(Diner_info& info);
    void remove(Diner_info& info); ///< nothing when it is not listed
    /// The status table, to the debug output or to standard output.
    void print(bool to_debug, bool full_path) const;
    /// The table of figures, likewise: how long handlers take, and how long events and timeouts wait for theirs.
    void print_figures(bool to_debug) const;
    /// The figures of all diners start anew.
    void reset_figures();
    /// Diner_info::test_lock() of every diner; a lock held for ever ends in the abort of Mutex.
    void test_lock();
    /// Nothing when `index` is out of range.
    void set_debug_level(int index, unsigned char level);
    /// Print the names of the diners that have not terminated, one per line "  NAME (STATE)\n" on standard error: says
    /// who holds up a shut-down. Returns their number.
    int print_alive() const;

    /// Call `look` for each diner, in the order of the table; from a handler, too. No diner comes or goes meanwhile, so
    /// it waits for nothing and takes no lock of a diner or of the list.
    void look_at_all(const std::function<void(Diner_info&)>& look);

    /// To be called right after the system's clock was set by `seconds` [s] and `ms` [ms], both of the same sign: the
    /// pending timeouts of all diners move along, and every diner is woken once to look at them. From a handler too.
    ///
    /// Where a Clock_watch lives nobody needs to call it, and the size given does not count.
    ///
    /// With neither timeouts keep their instants. A forward step then fires them early, a periodic one once for each
    /// period that was skipped; a backward step holds them up until the clock is there again. The same happens to what
    /// a diner does between the step and this call, so a clock is best set where nothing comes in between.
    void clock_stepped(int32_t seconds, int ms);

private:
    Diner_info_list() = default;
    ~Diner_info_list();
    friend class Diner;
    void begin_leaving(Diner_info& info);       ///< remove(), but its diner still counts as alive ...
    void end_leaving();                         ///< ... until this. Nothing of the list is used behind it.
    int num_alive() const KAV_REQUIRES(_mutex); ///< of those in the list

    mutable Mutex _mutex;
    Mutex _members KAV_ACQUIRED_AFTER(_mutex); ///< also held while the list changes; see clock_stepped()
    c_sl_list<Diner_info> _infos KAV_GUARDED_BY(_mutex);
    std::atomic<int> _num_leaving{0}; ///< diners that are in the list no more and whose threads still use them
};
