// SPDX-License-Identifier: MIT
#include "glue/diner/Supervisor.h"
#include "glue/diner/Diner_info_list.h"
#include "platform/Watchdog.h"
#include "util/Debug_print.h"
#include "util/assertion.h"
#include "util/clock.h"
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr int least_period_ms = 10;

int64_t now_ms() {
    struct timespec t;
    Util::boot_clock(t);
    return int64_t{t.tv_sec} * 1000 + t.tv_nsec / 1000000;
}

int as_int(int64_t ms) { return static_cast<int>(std::min<int64_t>(ms, INT_MAX)); }

void tell(const Supervisor::Trouble& t) {
    switch (t.kind) {
    case Supervisor::long_handler:
        Debug_print::try_print("Supervisor: %s runs a handler for %d ms, last at %s:%d, and %d events wait\n",
                               t.diner.name, as_int(t.ms), t.file, t.line, t.queued);
        break;
    case Supervisor::standing_queue:
        Debug_print::try_print("Supervisor: %s takes none of its %d events for %d ms, last at %s:%d\n", t.diner.name,
                               t.queued, as_int(t.ms), t.file, t.line);
        break;
    case Supervisor::empty_pool:
        Debug_print::try_print("Supervisor: the event pool is empty for %d ms, most events wait for %s: %d\n",
                               as_int(t.ms), t.diner.name, t.queued);
        break;
    }
}

void tell_over(const Supervisor::Trouble& t) {
    if (t.kind == Supervisor::empty_pool)
        Debug_print::try_print("Supervisor: the event pool has room again\n");
    else
        Debug_print::try_print("Supervisor: %s goes on\n", t.diner.name);
}

} // namespace

Supervisor::Supervisor() : Supervisor(Options()) {}
Supervisor::Supervisor(Options options) : _options(std::move(options)) {}
Supervisor::~Supervisor() {
    if (_modules) terminate(true);
}

void Supervisor::add_watchdog(Watchdog& w) { _watchdogs.push_back(&w); }

void Supervisor::init(module_man& mm) {
    Diner::Options own;
    own.priority = _options.priority;
    _modules = &mm;
    feed(); // while there is no other thread that does
    init(mm, Descriptor("SUPERVISOR", 0), own);
    start();
}

void Supervisor::diner_start() {
    _tick.period = period();
    submit_timeout(_tick, period());
}

void Supervisor::handle_timeout(Timeout&) { look(); }

/// A look that came late is followed by another before the watchdog bites.
int Supervisor::period() const {
    int ms = _options.period_ms;
    for (const Watchdog* w : _watchdogs)
        if (w->limit_ms() > 0) ms = std::min(ms, w->limit_ms() / 3);
    return std::max(ms, least_period_ms);
}

void Supervisor::look() {
    const int64_t now = now_ms();
    // When we ourselves come late, the process has stood still, and nobody in it could do any better.
    const int64_t passed = _last_look < 0 ? 0 : std::clamp<int64_t>(now - _last_look, 0, 2 * period());
    _last_look = now;
    look_at_diners(passed);
    for (const Trouble& t : _over) tell_over(t);
    for (const Trouble& t : _news) {
        tell(t);
        if (_options.reaction == abort_there) Util::flush_and_abort();
        if (_options.reaction == call && _options.on_trouble) _options.on_trouble(t);
    }
    _over.clear();
    _news.clear();
    feed();
}

void Supervisor::look_at_diners(int64_t passed) {
    for (Watched& w : _watched) w.seen = false;
    _longest = Trouble();
    Diner_info_list::get().look_at_all([&](Diner_info& other) { look_at(other, passed); });
    _watched.erase(std::remove_if(_watched.begin(), _watched.end(), [](const Watched& w) { return !w.seen; }),
                   _watched.end());
    look_at_pool(passed);
    _in_trouble = _pool.told || std::any_of(_watched.begin(), _watched.end(), [](const Watched& w) { return w.told; });
}

/// Called with the list kept as it is: it only looks, and takes no lock but those of a queue.
void Supervisor::look_at(Diner_info& other, int64_t passed) {
    if (&other.diner == this) return;
    auto found = std::find_if(_watched.begin(), _watched.end(), [&](const Watched& w) { return w.info == &other; });
    if (found == _watched.end()) found = _watched.insert(found, Watched());
    Watched& w = *found;
    w.info = &other;
    w.seen = true;

    const uint64_t handler = other.handler_since.load(std::memory_order_acquire);
    const uint32_t handled =
        other.event_count.load(std::memory_order_relaxed) + other.timeout_count.load(std::memory_order_relaxed);
    Trouble now;
    now.kind = handler ? long_handler : standing_queue;
    now.diner = other.diner.get_descriptor();
    now.file = other.checkpoint_file.load(std::memory_order_relaxed);
    now.line = other.checkpoint_line.load(std::memory_order_relaxed);
    now.queued = other.diner.waiter.num_queued();
    if (now.queued > _longest.queued) _longest = now;

    const bool idle = !handler && (now.queued == 0 || !other.is_running());
    const bool moved = idle || handler != w.handler || handled != w.num_handled;
    w.handler = handler;
    w.num_handled = handled;
    w.ms = moved ? 0 : w.ms + passed;
    const int own = other.handler_limit_ms.load(std::memory_order_relaxed);
    const int limit = !handler ? _options.queue_ms : own != 0 ? own : _options.handler_ms;
    now.ms = handler ? other.handler_age_ns() / 1000000 : w.ms;
    judge(w, now, limit >= 0 && w.ms > 0 && w.ms >= limit);
}

void Supervisor::look_at_pool(int64_t passed) {
    const int free = _modules ? _modules->num_free_events() : Diner_info_list::get().num_free_events();
    _pool.ms = free < pool_low ? _pool.ms + passed : 0;
    Trouble now = _longest;
    now.kind = empty_pool;
    now.ms = _pool.ms;
    judge(_pool, now, _pool.ms > 0 && _pool.ms >= _options.pool_ms);
}

/// Each trouble is told of once, and its end once.
void Supervisor::judge(Watched& w, const Trouble& now, bool trouble) {
    if (trouble && !w.told) _news.push_back(now);
    if (!trouble && w.told) _over.push_back(now);
    w.told = trouble;
}

void Supervisor::feed() {
    if (_starved || (_in_trouble && _options.reaction == starve)) return;
    int reason = 0;
    for (Watchdog* w : _watchdogs)
        if (!w->feed()) reason = errno;
    if (reason != 0 && !_feeding_failed)
        Debug_print::try_print("Supervisor: cannot feed a watchdog: %s\n", strerror(reason));
    _feeding_failed = reason != 0;
}
