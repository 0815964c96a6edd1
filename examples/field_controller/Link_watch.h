// SPDX-License-Identifier: MIT
#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>

/// Measures the time from the first byte that waits on the line to the handler that reads it, and tells the writer how
/// far behind the reader is. One writer, one reader.
class Link_watch {
public:
    /// The writer is about to put bytes on the line.
    void about_to_write() {
        int64_t none = 0;
        _waiting_since.compare_exchange_strong(none, now());
    }
    /// The reader's handler runs; [us] since the bytes were written, 0 when none were.
    int64_t handled() {
        const int64_t since = _waiting_since.exchange(0);
        return since ? (now() - since) / 1000 : 0;
    }
    /// The reader has looked at all but the newest of the bytes, `n` so far (modulo 2^32).
    void looked_at(uint32_t n) {
        _looked_at = n;
        _has_reader = true;
    }
    /// The writer wrote `n` bytes so far. True when the reader, if there is one, has not yet looked at many of them.
    bool behind(uint32_t n) const { return _has_reader && n - _looked_at > most_behind; }

private:
    static constexpr uint32_t most_behind = 1000; ///< [bytes] an epoch and bursts of noise find room in the stream too

    static int64_t now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

    std::atomic<uint32_t> _looked_at{0};
    std::atomic<bool> _has_reader{false};
    std::atomic<int64_t> _waiting_since{0}; ///< [ns], 0: nothing waits
};
