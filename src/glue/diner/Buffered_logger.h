// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Diner.h"
#include "util/Mutex.h"
#include "util/Ring_buffer.h"
#include "util/api.h"
#include <atomic>

/// Prints log text on behalf of other threads, so that they never wait for the debug output: they append to a ring
/// under a short lock, and the logger's own thread prints it in pieces of at most 80 bytes. What does not fit is
/// dropped, and each append that lost text is answered by "**1 CHARS DROPPED**"; where very many lost some while the
/// output was held up, the last of them together by "**1 CHARS DROPPED** x 3642".
class KAV_API Buffered_logger : public Diner {
public:
    static constexpr uint32_t capacity = 4096; ///< [bytes] of text that may wait
    static constexpr uint32_t piece = 80;      ///< [bytes] printed at a time
    /// Notices of dropped text that waited for the output and are printed one by one; more become one with their
    /// number.
    static constexpr uint32_t max_notices = 256;

    /// The one that log() writes to; null until init() and when it is gone.
    static std::atomic<Buffered_logger*> self;

    Buffered_logger();
    /// With room for `size` [bytes] of text in place of `capacity`; `storage` outlives it.
    Buffered_logger(unsigned char* storage, uint32_t size);
    ~Buffered_logger() override; ///< ends its thread; text that still waits is not printed

    using Diner::init;
    /// Give it its thread, make it the one that log() writes to, and start it. The thread asks for real-time priority
    /// 50; with that it prints each line at once, at the expense of the caller, whose core it takes. A thread without
    /// real-time priority runs as one for batches: it does not take the core away from its callers.
    void init(module_man& mm);

    /// Queue a text; any thread. It never waits for an output that holds up the logger: while the logger prints, it
    /// also prints the notice of dropped text; else append() does. Text of different threads is kept whole only as far
    /// as it fits. Allocates nothing.
    void append(const char* text);
    uint32_t waiting() const; ///< [bytes] that wait to be printed; any thread
    /// append() on the logger initialised last; nothing while there is none. A logger is not destroyed while others
    /// log.
    static void log(const char* text);

    /// Hooks by which a printer of a debug interface can be routed into the logger; no effect here.
    static void set_callback(void (*callback)(const char*));
    static void enable_dbi(int on);
    static void enable_dbi2(int on);

    void diner_start() override {}
    void diner_stop() override {}
    void handle_event(waiter_event& event) override;
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;

private:
    struct Piece {
        uint32_t length; ///< [bytes] of its text
        uint32_t left;   ///< [bytes] that stay in the ring
        uint32_t notices;
    };
    Piece take(char* text, bool with_notices);
    bool leave_notice();
    uint32_t end_printing();
    static uint32_t number(uint64_t notices);
    static void print_notices(uint32_t n);

    bool _scheduled = false; ///< the thread's own
    mutable Mutex _mutex;
    Ring_buffer _ring KAV_GUARDED_BY(_mutex);
    const uint32_t _capacity;
    /// What the ring holds. Who sees that it is full has nothing to put and leaves the mutex to who drains it: in a
    /// flood that one would hardly get it.
    std::atomic<uint32_t> _used{0};
    /// To be printed by the logger's thread, each `one_notice`. With `printing` that thread prints, or is held up by
    /// the output, and will look for notices after it.
    std::atomic<uint64_t> _notices{0};
    static constexpr uint64_t printing = 1, one_notice = 2;
    unsigned char _storage[capacity];
};
