// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "glue/data_stream/Recording.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/atime.h"
#include <atomic>

/// Passes on what another stream brings and takes, and keeps a copy of it in a third:
///
///     device -> the other stream -> Recorder_data_stream -> whoever reads this stream
///                                       |
///                                       +-> sink: a file, say
///
/// The other stream is read through this one alone. Where a thread of its own fills it (Posix_threaded_data_stream),
/// the diner that it wakes asks this stream for bytes_avail(BUFFER_SIZE), which takes what is there, before it looks at
/// it.
///
/// One thread reads and one may write; the sink is theirs and is not touched by others. Both streams are not owned and
/// outlive this one.
class KAV_API Recorder_data_stream : public Data_stream {
public:
    enum Format {
        raw,  ///< the bytes that were received and nothing else: what a file or the parser takes
        timed ///< with times, and what was sent as well: what Replay_data_stream takes, see Recording.h
    };

    /// `sink_name` stands in the line that tells of a failure; not copied.
    Recorder_data_stream(Data_stream& other, Data_stream& sink, Format format, char const* sink_name);

    /// False once the sink did not take everything, because its disk is full for instance. A line on the debug output
    /// says so then; the recording ends there and the stream goes on without.
    bool is_recording() const { return _recording; }

    // The other stream's.

    void flush() override { _other.flush(); }
    int set_read_timeout(int ms) override { return _other.set_read_timeout(ms); }
    int set_default_read_timeout() override { return _other.set_default_read_timeout(); }
    int set_write_timeout(int ms) override { return _other.set_write_timeout(ms); }
    int set_default_write_timeout() override { return _other.set_default_write_timeout(); }

    using Data_stream::get_data;
    /// Have the other stream fetch `n` bytes, and take all that it has then. True when these were `n` or more.
    bool get_data(int n) override;
    unsigned int _write(unsigned char const* data, unsigned int n) override;

private:
    void record(Recording::Kind kind, unsigned char const* data, uint32_t n);
    void put(unsigned char const* data, uint32_t n);

    Data_stream& _other;
    Data_stream& _sink;
    const Format _format;
    char const* const _sink_name;
    Mutex _mutex; ///< guards the sink and what follows: the reader and the writer record
    Atime _last;  ///< of the record before
    std::atomic<bool> _recording{true};
};
