// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Time_figure.h"
#include "util/api.h"
#include "util/sl_list.h"
#include <atomic>
#include <cstdint>

class Diner;

/// The status record inside every diner; a row of the status table. The diner's thread writes it without a lock,
/// readers see each field as it stands.
class KAV_API Diner_info : public sll_node {
public:
    enum Activity : unsigned char { activity_idle = 0, activity_event = 1, activity_timeout = 2 };

    explicit Diner_info(Diner& d);
    virtual ~Diner_info() = default;

    /// "%9s %5s-%d %3s %8d %7d %s:%d\n": name, state, start-pending, activity, events, timeout passes, checkpoint. To
    /// the debug output or to standard output. `full_path`: the checkpoint's file with its folders.
    void print(bool to_debug, bool full_path) const;
    /// Lets a derived record add to its row: `text` points to the free part of the row, `room` [bytes] with the zero.
    /// The text is writable despite its type.
    virtual void append_print_info(const char* text, int room) const;
    /// 0 none; from 10 or 50 on events, from 11 or 51 on timeouts are printed; see the diner.
    void set_debug_level(unsigned char level) { debug_level = level; }
    /// Prints "Testing %9s", takes and releases the diner's lock, prints ".. Ok\n". A stuck diner leaves the line
    /// unfinished.
    void test_lock();

    /// The last place the diner passed: a path under the source root and a fixed number.
    void checkpoint(const char* file, int line) {
        checkpoint_file.store(file, std::memory_order_relaxed);
        checkpoint_line.store(line, std::memory_order_relaxed);
    }

    /// [ns] since the handler that runs now was called; 0 when none runs.
    int64_t handler_age_ns() const;
    /// The diner is in its run loop. Takes no lock.
    bool is_running() const;
    /// The figures below start anew, and so does the longest queue.
    void reset_figures();
    /// "%9s %9.1f %9.1f %9.1f %9.1f %8d %8d\n": name; mean and worst handler [us]; mean and worst time from post to
    /// handler [us]; worst lateness of a timeout [ms]; longest queue.
    void print_figures(bool to_debug) const;

    Diner& diner;
    std::atomic<const char*> checkpoint_file{""};
    std::atomic<int> checkpoint_line{0};
    std::atomic<uint32_t> event_count{0};   ///< events taken, swallowed ones included
    std::atomic<uint32_t> timeout_count{0}; ///< passes of timeout handling
    std::atomic<uint64_t> handler_since{0}; ///< [ticks] when the handler that runs now was called; 0: none runs
    Time_figure handler_time;               ///< of each event and each timeout that was handled
    /// From post to handler. Measured for each event that wakes the diner or is the first since it last looked, and of
    /// those behind such a one for one in 64, which counts for all of them.
    Time_figure wait_time;
    std::atomic<int32_t> worst_late_ms{0}; ///< [ms] by which a timeout was called after its expiry
    /// [ms] a handler may run before a Supervisor calls it trouble; 0: as the supervisor has it, negative: as long as
    /// it likes.
    std::atomic<int32_t> handler_limit_ms{0};
    std::atomic<bool> listed{false}; ///< in the status list, which sets it
    std::atomic<unsigned char> activity{activity_idle};
    std::atomic<unsigned char> debug_level{0};

private:
    friend class Diner;
    void handler_begins(uint64_t posted_at, uint32_t weight); ///< `posted_at` [ticks], 0: not measured
    uint64_t handler_ends(); ///< [ticks] when; 0, and nothing, when it has ended already
    void timeout_late(int ms) {
        if (ms > worst_late_ms.load(std::memory_order_relaxed)) worst_late_ms.store(ms, std::memory_order_relaxed);
    }
};
