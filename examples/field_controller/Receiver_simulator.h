// SPDX-License-Identifier: MIT
#pragma once
#include "Field_track.h"
#include "Geodesy.h"
#include "Line_faults.h"
#include "Link_watch.h"
#include "glue/data_stream/Data_stream.h"
#include "glue/diner/Diner_protection.h"
#include <string>

/// Plays the receiver: ten times a second it computes where the machine is and writes the messages of that epoch to the
/// line, positions at 10 Hz, satellites and clocks at 1 Hz, replies and an almanac now and then. The line spoils some.
class Receiver_simulator : public Diner::Protection {
public:
    struct Counts {
        unsigned frames = 0;    ///< written, spoilt ones included
        unsigned replies = 0;   ///< RE and ER
        unsigned damaged = 0;   ///< of the frames and replies, those that the line spoilt
        unsigned faults = 0;    ///< line faults in all, noise between frames included
        unsigned unsent = 0;    ///< frames that the line did not take because nobody read it
        unsigned held_back = 0; ///< times that an epoch waited for the reader: a busy machine at speed
        uint32_t bytes = 0;     ///< modulo 2^32
    };

    /// `line` and `watch` outlive the simulator. `frames_per_fault` 0: a perfect line. `speed` 1..100: so many times as
    /// fast as real time.
    Receiver_simulator(Data_stream& line, Link_watch& watch, unsigned frames_per_fault, int speed);
    ~Receiver_simulator() override { terminate(true); }

    using Diner::init;
    void init(module_man& modules);
    Counts counts() const;

private:
    static constexpr int period_ms = 100;

    void diner_start() override { submit_timeout(_tick, _tick.period); }
    void handle_event(waiter_event&) override {}
    void handle_timeout(Timeout&) override;
    using Diner::handle_timeout;

    void send_epoch();
    void send_position(const Field_track::Pose& pose);
    void send_clocks();
    void send_satellites();
    void send_almanac(unsigned sv);
    void send_reply();
    void send_text();
    void send(std::string frame, unsigned& counter);

    Data_stream& _line;
    Link_watch& _watch;
    Line_faults _faults;
    Field_track _track;
    Geodesy::Geodetic _origin;
    Timeout _tick;
    unsigned _epoch = 0;
    Counts _counts;
};
