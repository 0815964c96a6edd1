// SPDX-License-Identifier: MIT
#include "glue/diner/Buffered_logger.h"
#include "util/Debug_print.h"
#include <algorithm>
#include <climits>
#include <cstring>
#include <pthread.h>
#include <sched.h>
#include <utility>

std::atomic<Buffered_logger*> Buffered_logger::self{nullptr};

namespace {

/// An ordinary thread that is woken takes the core of who woke it, at each line. One for batches waits for its turn.
void leave_the_core_to_callers() {
    sched_param normal = {};
    int policy = SCHED_OTHER;
    if (pthread_getschedparam(pthread_self(), &policy, &normal) == 0 && policy == SCHED_OTHER)
        pthread_setschedparam(pthread_self(), SCHED_BATCH, &normal);
}

} // namespace

Buffered_logger::Buffered_logger() : Buffered_logger(_storage, capacity) {}

Buffered_logger::Buffered_logger(unsigned char* storage, uint32_t size) : _ring(storage, size), _capacity(size) {}

Buffered_logger::~Buffered_logger() {
    if (state.load(std::memory_order_acquire) != state_uninit) terminate(true);
    Buffered_logger* own = this;
    self.compare_exchange_strong(own, nullptr);
}

void Buffered_logger::init(module_man& mm) {
    Options options;
    options.priority = 50;
    options.stack_kib = 2048;
    options.pass_anonymous = true;
    init(mm, Descriptor("LOG0", 0), options);
    self = this;
    start();
}

void Buffered_logger::append(const char* text) {
    const auto n = static_cast<uint32_t>(std::min<size_t>(strlen(text), UINT_MAX));
    bool cut = n > 0;
    if (_used.load(std::memory_order_acquire) < _capacity) {
        const Scoped_lock held(_mutex);
        cut = _ring.put(reinterpret_cast<const unsigned char*>(text), n) < n;
        _used.store(_ring.used(), std::memory_order_release);
    }
    if (cut && !leave_notice()) print_notices(1);
    waiter.send_anonymous_event();
}

/// Have the logger's thread print that text was dropped, since the ring is full when the output is slow and the
/// appender must not wait for it. False when that thread is not printing.
bool Buffered_logger::leave_notice() {
    uint64_t n = _notices.load(std::memory_order_acquire);
    while (n & printing) {
        if (_notices.compare_exchange_weak(n, n + one_notice, std::memory_order_acq_rel)) return true;
    }
    return false;
}

/// The 1 is a flag: how much was dropped is not told.
void Buffered_logger::print_notices(uint32_t n) {
    if (n == 0) return;
    constexpr char notice[] = "**1 CHARS DROPPED**";
    for (uint32_t i = 1; i < std::min(n, max_notices); ++i) Debug_print::printd(notice, sizeof notice - 1);
    Debug_print::bprint("%s", notice); // one flush for all
    if (n > max_notices) Debug_print::bprint("**%i CHARS DROPPED** x %u", 1, static_cast<unsigned>(n - max_notices));
}

uint32_t Buffered_logger::waiting() const {
    const Scoped_lock held(_mutex);
    return _ring.used();
}

void Buffered_logger::log(const char* text) {
    if (Buffered_logger* logger = self) logger->append(text);
}

void Buffered_logger::set_callback(void (*)(const char*)) {}
void Buffered_logger::enable_dbi(int on) { set_callback(on ? log : nullptr); }
void Buffered_logger::enable_dbi2(int on) { set_callback(on ? log : nullptr); }

uint32_t Buffered_logger::number(uint64_t notices) {
    return static_cast<uint32_t>(std::min<uint64_t>(notices / one_notice, UINT_MAX));
}

/// Move the oldest piece out of the ring, and the notices `with_notices`.
Buffered_logger::Piece Buffered_logger::take(char* text, bool with_notices) {
    const Scoped_lock held(_mutex);
    const uint32_t n = _ring.peek(0, reinterpret_cast<unsigned char*>(text), piece);
    _ring.drop(n);
    _used.store(_ring.used(), std::memory_order_release);
    return {n, _ring.used(), with_notices ? number(_notices.exchange(printing, std::memory_order_acq_rel)) : 0};
}

/// The notices left since the last piece. When there are none nobody leaves any from now on.
uint32_t Buffered_logger::end_printing() {
    uint64_t n = _notices.load(std::memory_order_acquire);
    while (!_notices.compare_exchange_weak(n, n >= one_notice ? printing : 0, std::memory_order_acq_rel)) {
    }
    return number(n);
}

void Buffered_logger::handle_event(waiter_event& event) {
    merge_wake_ups(event); // what they were for is printed now
    if (!std::exchange(_scheduled, true)) leave_the_core_to_callers();
    char text[piece + 1];
    Piece taken;
    uint32_t since_notices = 0; // [bytes]: in a flood, notices at each piece would leave the text little of the output
    do {
        taken = take(text, since_notices == 0);
        // Printed without the lock: appenders do not wait for it.
        print_notices(taken.notices);
        if (taken.length == 0) break;
        text[taken.length] = 0;
        Debug_print::printd(text, static_cast<int>(taken.length));
        since_notices += taken.length;
        if (since_notices >= _capacity) since_notices = 0;
    } while (taken.left > 0);
    while (const uint32_t notices = end_printing()) print_notices(notices);
}
