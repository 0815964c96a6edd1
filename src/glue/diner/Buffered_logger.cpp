// SPDX-License-Identifier: MIT
#include "glue/diner/Buffered_logger.h"
#include "util/Debug_print.h"
#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <mutex>

static std::atomic<Buffered_logger*> self{nullptr};

Buffered_logger::Buffered_logger() : _ring(_storage, capacity) {}

Buffered_logger::~Buffered_logger() {
    terminate(true);
    Buffered_logger* own = this;
    self.compare_exchange_strong(own, nullptr);
}

void Buffered_logger::init(module_man& mm) {
    init(mm, nullptr, Descriptor("LOG0", 0), 50, 2048, false, true);
    self = this;
    start();
}

void Buffered_logger::append(char const* text) {
    const auto n = static_cast<uint32_t>(std::min<size_t>(strlen(text), UINT_MAX));
    bool dropped;
    {
        const std::lock_guard<Mutex> guard(_mutex);
        dropped = _ring.put(reinterpret_cast<const unsigned char*>(text), n) < n;
    }
    // The number is a flag: how much was dropped is not told.
    if (dropped) Debug_print::bprint("**%i CHARS DROPPED**", 1);
    waiter.send_anonymous_event();
}

void Buffered_logger::log(char const* text) {
    if (Buffered_logger* logger = self) logger->append(text);
}

void Buffered_logger::set_callback(void (*)(char const*)) {}
void Buffered_logger::enable_dbi(int on) { set_callback(on ? log : nullptr); }
void Buffered_logger::enable_dbi2(int on) { set_callback(on ? log : nullptr); }

/// Move the oldest piece out of the ring: its length; `left` receives what is still there.
uint32_t Buffered_logger::take(char* text, uint32_t& left) {
    const std::lock_guard<Mutex> guard(_mutex);
    const uint32_t n = _ring.peek(0, reinterpret_cast<unsigned char*>(text), piece);
    _ring.drop(n);
    left = _ring.used();
    return n;
}

void Buffered_logger::handle_event(waiter_event&) {
    char text[piece + 1];
    uint32_t left;
    do {
        const uint32_t n = take(text, left);
        if (n == 0) return;
        text[n] = 0;
        Debug_print::printd(text, static_cast<int>(n)); // without the lock: appenders do not wait for it
    } while (left > 0);
}
