// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Trace_ring.h"
#include <cstddef>
#include <cstdint>

/// Writes a ring as Chrome trace JSON, one event a line (docs/formats.md). Uses nothing but its own memory, some 9 KiB
/// that may lie on the stack, and reads the names of threads from /proc: a signal handler may do all of it.
class Trace_json {
public:
    Trace_json(Trace::Sink sink, void* to) : _sink(sink), _to(to) {}
    /// At most the `last` records of it; of a null ring an empty trace. False when the sink has refused.
    bool write(const Trace_ring* ring, uint64_t last);

private:
    /// An instant [ns] from ticks, all of one trace by one measure.
    class Scale {
    public:
        Scale();
        int64_t ns(uint64_t ticks) const;

    private:
        const uint64_t _ticks;
        const int64_t _ns;
        const double _ns_per_tick;
    };
    /// What is known of a thread that a record named.
    struct Thread {
        uint32_t id;
        int32_t depth;   ///< of open spans, handlers included
        int32_t handler; ///< depth at which one is open; -1: none
    };

    void begin(const Trace::Counts& counts, uint64_t kept);
    void write_record(const Trace_record& r);
    bool nest(Thread& t, const Trace_record& r);
    void end_lost(Thread& t, const Trace_record& r, int32_t depth);
    void write_post(const Trace_record& r);
    void write_handler(const Trace_record& r);
    void write_diner_event(const Trace_record& r);
    void write_other(const Trace_record& r);
    void queue_length(const Trace_record& r, uint16_t length);
    void flow(const Trace_record& r, char phase);
    Thread* thread(uint32_t id);

    // An event: `open`, then a name and arguments, then `close`.
    void open(const Trace_record& r, char phase);
    void open_metadata(const char* name, uint32_t thread);
    void key(const char* name);
    void argument(const char* name, int64_t value);
    void argument(const char* name, const char* value);
    void diner_argument(const Trace_record& r) { argument("diner", Trace_names::get().name(r.diner)); }
    void close();

    void text(const char* s);
    void quoted(const char* s, size_t most);
    void number(int64_t value);
    void micros(int64_t ns);
    void put(char c) {
        if (_used < sizeof _buffer) _buffer[_used++] = c;
    }
    void flush();

    const Trace::Sink _sink;
    void* const _to;
    bool _failed = false, _first = true, _in_arguments = false;
    const Scale _scale;
    const Trace_names& _names = Trace_names::get();
    static constexpr size_t max_threads = 128, max_event = 512;
    Thread _threads[max_threads];
    size_t _num_threads = 0;
    uint16_t _posted[Trace::max_diners + 1]; ///< number of the node queued last ...
    bool _posted_known[Trace::max_diners + 1] = {};
    size_t _used = 0;
    char _buffer[4096 + max_event];
};
