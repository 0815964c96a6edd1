// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Diner.h"
#include "util/Mutex.h"
#include "util/Ring_buffer.h"
#include "util/api.h"

/// Prints log text on behalf of other threads, so that they never wait for the debug output: they append to a ring
/// under a short lock, and the logger's own thread prints it in pieces of at most 80 bytes. What does not fit is
/// dropped, and said so.
class KAV_API Buffered_logger : public Diner {
public:
    static constexpr uint32_t capacity = 4096; ///< [bytes] of text that may wait
    static constexpr uint32_t piece = 80;      ///< [bytes] printed at a time

    Buffered_logger();
    ~Buffered_logger() override;

    using Diner::init;
    /// Give it its thread, make it the one that log() writes to, and start it.
    void init(module_man& mm);

    /// Queue a text; any thread. It never waits for the output. Text of different threads is kept whole only as far as
    /// it fits. Allocates nothing.
    void append(char const* text);
    /// append() on the logger initialised last; nothing while there is none. A logger is not destroyed while others
    /// log.
    static void log(char const* text);

    /// Hooks by which a printer of a debug interface can be routed into the logger; no effect here.
    static void set_callback(void (*callback)(char const*));
    static void enable_dbi(int on);
    static void enable_dbi2(int on);

    void diner_start() override {}
    void diner_stop() override {}
    void handle_event(waiter_event& event) override;
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;

private:
    uint32_t take(char* text, uint32_t& left);

    Mutex _mutex; ///< guards the ring alone
    Ring_buffer _ring;
    unsigned char _storage[capacity];
};
