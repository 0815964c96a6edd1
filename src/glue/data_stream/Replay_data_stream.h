// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "glue/data_stream/Recording.h"
#include "util/api.h"
#include "util/atime.h"

/// Brings what was received in a timed recording, each byte when it is due: a device that behaves as it did in the
/// field. What was sent is left out, and what is written to this stream is forgotten.
///
/// A reader that waits calls the stream's operations, as with Posix_data_stream: they wait up to the read time-out,
/// without limit at first. A diner sets the time-out to 0 and a timeout of its own to ms_to_next(). One thread owns the
/// stream; there is no lock. Times go by the time of day, so that a settable clock replays a day in a minute.
class KAV_API Replay_data_stream : public Data_stream {
public:
    enum State {
        playing,
        ended,      ///< all was brought that the recording has
        cut,        ///< the same; the file ends in the middle of a record
        damaged,    ///< bytes that are no record; what was before them was brought
        unreadable, ///< another version, or no timed recording at all: nothing was brought
    };

    /// `source` is open for reading at the head of the recording, is not owned and outlives this stream. `speed` is
    /// that of the original times so many; 0 or less: all at once.
    explicit Replay_data_stream(Data_stream& source, double speed = 1);

    /// Whether a source begins as a timed recording does. Takes nothing from it.
    static bool is_recording(Data_stream& source);

    /// Anything but playing is final; a line on the debug output has told of cut, damaged and unreadable.
    State state() const { return _state; }
    /// [ms] until bytes are due, 0 when some are; -1 when none come any more.
    int ms_to_next();
    const Atime& begun() const { return _begun; } ///< when it was recorded; valid while state() is not unreadable

    int set_read_timeout(int ms) override; ///< [ms], -1 without limit
    int set_default_read_timeout() override { return set_read_timeout(-1); }

    using Data_stream::get_data;
    /// Bring `n` bytes or more, waiting for them. Of a record that is due all that the buffer has room for is brought.
    bool get_data(int n) override;
    unsigned int _write(unsigned char const* data, unsigned int n) override; ///< `n`, always

private:
    bool load_record();
    bool skip(uint32_t n);
    uint32_t bring(uint32_t room);
    bool end(State state, char const* why);
    uint32_t source_has(uint32_t n);

    Data_stream& _source;
    const double _speed;
    State _state = playing;
    Atime _begun;
    Atime _due;             ///< of the record that is played, or was played last
    double _fraction = 0;   ///< [ms] by which it is due later
    uint32_t _left = 0;     ///< [bytes] of that record
    uint64_t _position = 0; ///< [bytes] read of the source
    int _read_timeout = -1;
};
