// SPDX-License-Identifier: MIT
#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>

/// Measures the time from the first byte that waits on the line to the handler that reads it. One writer, one reader.
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

private:
    static int64_t now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

    std::atomic<int64_t> _waiting_since{0}; ///< [ns], 0: nothing waits
};
