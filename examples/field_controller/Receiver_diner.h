// SPDX-License-Identifier: MIT
#pragma once
#include "Fault_history.h"
#include "Link_watch.h"
#include "Machine_block.h"
#include "glue/data_stream/Posix_threaded_serial_data_stream.h"
#include "glue/diner/Clock_watch.h"
#include "glue/diner/Diner_protection.h"
#include "glue/vorn/Vorn_checkers.h"
#include "glue/vorn/Vorn_parser.h"
#include "glue/vorn/Vorn_printer.h"

/// Listens to the receiver: woken by the stream's reader thread, it cuts packets out of the bytes, checks each frame,
/// prints it, and writes what concerns the other components into the machine's block.
class Receiver_diner : public Diner::Protection {
public:
    struct Counts {
        unsigned delivered = 0; ///< frames whose checksum is right, and texts, which have none
        unsigned positions = 0; ///< of them
        unsigned rejected = 0;  ///< frames whose checksum is wrong
        unsigned refused = 0;   ///< what began like a frame, of an impossible kind or length
        unsigned replies = 0;
        unsigned text_lines = 0; ///< what was met out of step, blank lines left out
        int64_t longest_us = 0;  ///< longest time from byte to handler
    };

    /// `stream`, `store`, `faults` and `watch` (may be null: no times) outlive the diner. `quiet`: count, but print
    /// nothing.
    Receiver_diner(Posix_threaded_serial_data_stream& stream, Machine_store& store, Fault_history& faults,
                   Link_watch* watch, bool quiet);
    ~Receiver_diner() override;

    /// Have the machine's clock set by the first time that comes, and `clock` told, which outlives the diner.
    void set_clock(Clock_watch& clock) { _clock = &clock; }
    using Diner::init;
    void init(module_man& modules);
    Counts counts() const;

private:
    /// Keeps a lying length from swallowing the frames behind it, and counts.
    class Counting_checker : public Vorn_length_checker {
    public:
        bool check(Data_stream& stream, unsigned short id, int total_len) override {
            const bool good = Vorn_length_checker::check(stream, id, total_len);
            refused += !good;
            return good;
        }
        unsigned refused = 0;
    };

    static constexpr int second_ms = 1000;
    static constexpr int lost_after = 2; ///< [s] without a byte

    void diner_start() override { submit_timeout(_second, second_ms); }
    void handle_event(waiter_event& event) override;
    void handle_timeout(Timeout&) override;
    using Diner::handle_timeout;

    void handle_reply(char* text);
    void handle_frame(unsigned char* bytes, int length);
    void publish(const Vorn_message& frame);
    void print(char* text) const;

    Posix_threaded_serial_data_stream& _stream;
    Machine_store& _store;
    Fault_history& _faults;
    Link_watch* _watch;
    Clock_watch* _clock = nullptr; ///< null: nothing to set, or set already
    const bool _quiet;
    Counting_checker _checker;
    Vorn_parser _parser;
    Vorn_printer _printer;
    Counts _counts;
    Timeout _second;
    Counts _before; ///< a second ago
    uint32_t _bytes_before = 0;
    int _silent = 0; ///< [s] without a byte
};
