// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <atomic>
#include <cstddef>
#include <cstdint>

/// A flight recorder: what the diners of the process did last, with the thread and the time, kept in a ring of records
/// and written out for viewers of traces (docs/formats.md).
///
/// Any thread records, without a lock and without waiting. Two threads that come to the same record, the ring gone
/// round between them, are told apart: the later one drops its own. What was overwritten or dropped is counted.
/// Switched off, what could be recorded costs a load and a branch. Everything here may be called by any thread.
class KAV_API Trace {
public:
    enum Kind : unsigned char {
        event_posted,      ///< queued
        event_merged,      ///< counted into one of its kind
        event_dropped,     ///< as unique, or by a disabled waiter
        event_refused,     ///< no room
        handler_begin,     ///< of an event
        timeout_begin,     ///< the handler of a timeout
        handler_end,       ///< of either
        timeout_submitted, ///< [ms] until it is due
        state_changed,     ///< of a diner
        bytes_arrived,     ///< on a stream
        bytes_lost,        ///< likewise
        range_signalled,   ///< of a data block
        setting_changed,
        mark,       ///< a program's own instant
        span_begin, ///< a program's own span
        span_end,
        num_kinds
    };
    static constexpr uint32_t kind_bit(Kind k) { return uint32_t{1} << k; }
    static constexpr uint32_t all_kinds = (uint32_t{1} << num_kinds) - 1;

    static constexpr unsigned least_records = 64, most_records = 1u << 20; ///< of 32 bytes each
    static constexpr int max_diners = 127;                                 ///< of different descriptors, told apart

    /// Record from now on. `records` is raised to a power of two; the memory is taken once, at the first start, and
    /// kept until the end of the process: a later start takes what is there. What was recorded before is forgotten.
    /// False without memory.
    static bool start(unsigned records = 16384, uint32_t kinds = all_kinds);
    static void stop(); ///< what is recorded stays, and may be written
    /// Which kinds are recorded, as a set of kind_bit(). Nothing before the first start.
    static void set_kinds(uint32_t kinds);
    /// Leave out, or let in again, what concerns the diners of that name (null: all): false when there was none so far.
    static bool set_diner(const char* name, bool on);

    /// An instant of the program's own. The name is a literal, or lives as long as the process.
    static void instant(const char* name, int32_t number = 0) {
        if (on(mark)) put(mark, 0, static_cast<uint32_t>(number), reinterpret_cast<uintptr_t>(name));
    }
    /// A span of the program's own: from its construction to its end, on one thread.
    class Span {
    public:
        explicit Span(const char* name, int32_t number = 0) : _name(name) {
            if (on(span_begin)) put(span_begin, 0, static_cast<uint32_t>(number), reinterpret_cast<uintptr_t>(name));
        }
        ~Span() {
            if (on(span_end)) put(span_end, 0, 0, reinterpret_cast<uintptr_t>(_name));
        }
        Span(const Span&) = delete;
        Span& operator=(const Span&) = delete;

    private:
        const char* const _name;
    };

    /// Receives what is written, piece by piece; false ends the writing.
    using Sink = bool (*)(void* to, const char* bytes, size_t n);
    /// Write out what the ring holds, as text (Chrome trace JSON), while recording goes on. False when the sink has
    /// refused. Allocates nothing; a signal handler may call it when the sink lets it.
    static bool write(Sink sink, void* to);
    /// The same into a file, which is made or replaced: 0 done, else the reason (errno), told of in a line on the debug
    /// output.
    static int write_file(const char* path);

    /// From now on the last records go to this file when the process is aborted by the library (Util::flush_and_abort:
    /// misuse, a deadlock, a broken invariant), before it ends; null: no more. Writing ends after two seconds, as far
    /// as the medium answers. False: the name is longer than 255 characters.
    static bool at_abort(const char* path);
    /// Write to the file of at_abort() now: 0, else errno; EBUSY while another thread does. Safe in a signal handler.
    static int write_now();
    /// Let a signal of the application's choice call write_now(). False when the system refuses.
    static bool write_on_signal(int signal);

    struct Counts {
        uint64_t recorded = 0;    ///< since the start
        uint64_t overwritten = 0; ///< of these, by later ones
        uint64_t dropped = 0;     ///< not recorded: another thread had the place
    };
    static Counts counts();

    // For the library's own use.

    /// Whether this kind is recorded.
    static bool on(Kind k) { return __builtin_expect((_kinds.load(std::memory_order_relaxed) & kind_bit(k)) != 0, 0); }
    /// Record: which diner (0: none), and what the kind says of the rest (Trace.cpp).
    static void put(Kind k, unsigned diner, uint32_t small, uint64_t large);
    /// The last eight characters of a name, as a `large`.
    static uint64_t short_name(const char* name);
    /// The number by which records name a diner; 0 when there are too many.
    static unsigned number_of(const char* name, int id);
    /// The calling thread is that diner's.
    static void on_thread_of(unsigned diner);

private:
    friend class Trace_json;
    static std::atomic<uint32_t> _kinds;
};
