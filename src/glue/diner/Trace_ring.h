// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Trace.h"
#include "util/Mutex.h"
#include <atomic>
#include <cstdint>

/// What Trace keeps. What the numbers of a record say depends on its kind:
///
/// | kind | small | large |
/// |---|---|---|
/// | event_posted | module << 16, length of the queue | id << 32, number of the node << 16, free nodes |
/// | event_merged, dropped, refused | module << 16 | id << 32 |
/// | handler_begin | module << 16 | id << 32, number of the node << 16 |
/// | timeout_begin | lateness [ms] | uid |
/// | timeout_submitted | due in [ms], INT32_MIN: at its own expiry | uid |
/// | state_changed | from << 16, to | |
/// | bytes_arrived, bytes_lost | count | the stream's short name |
/// | range_signalled | | offset << 32, size |
/// | setting_changed | id | id of its container |
/// | mark, span_begin, span_end | number | address of the name |
struct Trace_record {
    uint64_t ticks;
    uint64_t large;
    uint32_t thread;
    uint32_t small;
    uint16_t diner;
    Trace::Kind kind;

    static uint32_t of_module(short module) { return uint32_t{static_cast<uint16_t>(module)} << 16; }
    static uint64_t of_event(int32_t id, uint32_t node = 0, int free = 0) {
        return uint64_t{static_cast<uint32_t>(id)} << 32 | (node & 0xFFFF) << 16 | static_cast<uint16_t>(free);
    }
};

/// The ring: 32 bytes a record.
class Trace_ring {
public:
    /// `records` is raised to a power of two. Null without memory.
    static Trace_ring* make(unsigned records);
    ~Trace_ring() { delete[] _slots; }

    void put(const Trace_record& r);
    /// What is read from now on was put from now on.
    void forget() {
        _dropped.store(0, std::memory_order_relaxed);
        _first.store(_next.load(std::memory_order_relaxed), std::memory_order_relaxed);
    }
    Trace::Counts counts() const;

    /// The records that are kept have the numbers from begin() to end().
    uint64_t end() const { return _next.load(std::memory_order_acquire); }
    uint64_t begin(uint64_t end) const;
    /// A record by its number; false when it is not there, or no more.
    bool read(uint64_t number, Trace_record& r) const;

private:
    explicit Trace_ring(unsigned records);

    /// `head` has the record's number + 1, its diner and its kind, or `busy` in the place of the last while a thread
    /// writes. Every store is a release and every load an acquire, so that none of them passes the heads around it.
    struct Slot {
        std::atomic<uint64_t> head, ticks, places, large;
    };
    static constexpr uint64_t busy = 0xFF;
    static constexpr int number_shift = 24, diner_shift = 8;

    Slot* _slots;
    const uint64_t _mask;
    std::atomic<uint64_t> _first{0}, _dropped{0};
    [[maybe_unused]] char _apart[64]; ///< what changes with every record has a cache line of its own
    std::atomic<uint64_t> _next{0};
};

/// Whose names records stand for.
class Trace_names {
public:
    static Trace_names& get();
    unsigned number_of(const char* name, int id); ///< from 1 on; 0: no room
    void set_thread(unsigned number, uint32_t thread);
    bool let_in(const char* name, bool on); ///< null: all; false when there is none of that name
    bool let_in(unsigned number) const { return !_names[number].left_out.load(std::memory_order_relaxed); }

    // For signal handlers, too.
    const char* name(unsigned number) const; ///< "" when there is none
    const char* name_of_thread(uint32_t thread) const;

private:
    struct Name {
        char text[13] = "";
        int id = 0;
        std::atomic<uint32_t> thread{0}; ///< the last that it had
        std::atomic<bool> left_out{false};
    };
    Name _names[Trace::max_diners + 1];
    std::atomic<unsigned> _count{0}; ///< beside [0], which is nobody's
    Mutex _mutex;                    ///< a leaf: who adds
};
