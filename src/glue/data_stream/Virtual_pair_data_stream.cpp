// SPDX-License-Identifier: MIT
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/data_stream/trace_bytes.h"
#include "util/atime.h"
#include <algorithm>

namespace {

/// Wake whoever waits for `s`. Called with the shared lock held, as every giving is: one token makes the waiter look
/// again, and as it looks under that lock, further ones would only pile up until the count wraps.
void wake(Semaphore& s) {
    if (s.available() == 0) s.release();
}

} // namespace

Virtual_pair_data_stream_part::Virtual_pair_data_stream_part(module_man* mm, Virtual_pair_data_stream_part& peer,
                                                             Mutex& shared)
    : Event_sender_data_stream(mm), _inbound(_inbound_storage, ring_size), _peer(peer), _shared(shared) {}

Virtual_pair_data_stream_part::~Virtual_pair_data_stream_part() = default;

void Virtual_pair_data_stream_part::flush() {
    const Scoped_lock held(_shared);
    _inbound.clear();
    wake(_peer._space);
}

int Virtual_pair_data_stream_part::set_read_timeout(int ms) {
    const Scoped_lock held(_shared);
    _read_timeout = ms;
    return 1;
}

int Virtual_pair_data_stream_part::set_default_read_timeout() { return set_read_timeout(default_timeout); }

int Virtual_pair_data_stream_part::set_write_timeout(int ms) {
    const Scoped_lock held(_shared);
    _write_timeout = ms;
    return 1;
}

int Virtual_pair_data_stream_part::set_default_write_timeout() { return set_write_timeout(default_timeout); }

bool Virtual_pair_data_stream_part::get_data(int n) {
    Scoped_lock held(_shared);
    const Atime deadline = Atime::from_now(_read_timeout);
    // A receive buffer that is full ends the read: what has no room stays inbound instead of being lost.
    while (n > 0 && !buffer.full()) {
        unsigned char piece[ring_size];
        const uint32_t wanted = std::min({static_cast<uint32_t>(n), ring_size, buffer.room()});
        const uint32_t got = _inbound.peek(0, piece, wanted);
        wake(_peer._space);
        if (got > 0) {
            buffer.put(piece, got);
            trace_bytes(*this, got, 0);
            _inbound.drop(got);
            n -= static_cast<int>(got);
            continue;
        }
        const int remaining = deadline - Atime::now();
        if (remaining <= 0) break;
        held.unlock();
        if (!_data.try_acquire(remaining / 10)) return false;
        held.lock();
    }
    _peer.send_tx_event(_inbound.empty());
    return n == 0;
}

unsigned int Virtual_pair_data_stream_part::_write(const unsigned char* data, unsigned int n) {
    const Atime start = Atime::now();
    Scoped_lock held(_shared);
    const Atime deadline = start + _write_timeout;
    uint32_t written = 0;
    bool to_wake = false; // something was put since the reader was last woken
    while (written < n) {
        const uint32_t put = _peer._inbound.put(data + written, n - written);
        if (put > 0) {
            written += put;
            to_wake = true;
            continue;
        }
        const int remaining = deadline - Atime::now();
        if (remaining <= 0) break;
        // A reader that already waits for bytes would otherwise wait for this writer, and this writer for its room.
        if (to_wake) wake(_peer._data);
        to_wake = false;
        held.unlock();
        // A failed wait is not notified: the peer finds the bytes at its next read.
        if (!_space.try_acquire(remaining / 10)) return written;
        held.lock();
    }
    wake(_peer._data);
    if (written > 0) _peer.send_rx_event(_peer._inbound.full());
    return written;
}

void Virtual_pair_data_stream_part::lock() KAV_NO_THREAD_SAFETY_ANALYSIS { _shared.lock(); }

void Virtual_pair_data_stream_part::unlock() KAV_NO_THREAD_SAFETY_ANALYSIS { _shared.unlock(); }

Virtual_pair_data_stream::Virtual_pair_data_stream(module_man* mm) : a(mm, b, _shared), b(mm, a, _shared) {}
