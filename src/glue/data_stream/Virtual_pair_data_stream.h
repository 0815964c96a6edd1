// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Event_sender_data_stream.h"
#include "util/Mutex.h"
#include "util/Ring_buffer.h"
#include "util/Semaphore.h"
#include "util/api.h"

/// One end of a virtual pair: what it writes, its peer reads.
///
///      a.write -> [ b's inbound ring, 128 bytes ] -> b's receive buffer, 4200 bytes -> b's reader
///
/// A read waits until the bytes asked for have arrived or the read time-out is over; what it took until then is in the
/// receive buffer. A write waits for room until the write time-out is over. Waits are cut to whole 10 ms, so a time-out
/// below 10 ms does not wait.
///
/// The reader's waiter is notified at the end of a write: a reader that only comes when woken lets a write of more than
/// 128 bytes wait for its whole time-out. Write less at a time, or let the writer be woken for space.
class KAV_API Virtual_pair_data_stream_part : public Event_sender_data_stream {
public:
    static constexpr uint32_t ring_size = 128;     ///< [bytes]
    static constexpr int default_timeout = 100000; ///< [ms]

    Virtual_pair_data_stream_part(module_man* mm, Virtual_pair_data_stream_part& peer, Mutex& shared);
    ~Virtual_pair_data_stream_part() override;

    /// Forget what arrived and is not in the receive buffer yet; a writer that waits for room goes on.
    void flush() override;
    int set_read_timeout(int ms) override;
    int set_default_read_timeout() override;
    int set_write_timeout(int ms) override;
    int set_default_write_timeout() override;
    using Data_stream::get_data;
    bool get_data(int n) override;
    unsigned int _write(const unsigned char* data, unsigned int n) override;
    void lock() override;
    void unlock() override;

private:
    int _read_timeout KAV_GUARDED_BY(_shared) = default_timeout;
    int _write_timeout KAV_GUARDED_BY(_shared) = default_timeout;
    Ring_buffer _inbound; ///< guarded by `_shared`, which is that of the peer, too: the analysis cannot know it
    unsigned char _inbound_storage[ring_size];
    Virtual_pair_data_stream_part& _peer;
    Mutex& _shared;   ///< both ends have the same
    Semaphore _data;  ///< given by the peer's writes
    Semaphore _space; ///< given by the peer's reads
};

/// Two connected streams in memory, so that two diners of a process can talk as they would over a serial line. Both
/// diners are gone before the pair is.
class KAV_API Virtual_pair_data_stream {
public:
    /// `mm` as for Event_sender_data_stream; each end obtains a module id.
    explicit Virtual_pair_data_stream(module_man* mm);

    Virtual_pair_data_stream_part a;
    Virtual_pair_data_stream_part b;

private:
    Mutex _shared; ///< the parts only keep a reference until they are used
};
