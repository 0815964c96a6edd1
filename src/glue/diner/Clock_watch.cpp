// SPDX-License-Identifier: MIT
#include "glue/diner/Clock_watch.h"
#include "glue/diner/Diner_info_list.h"
#include "util/Debug_print.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace {

/// A timer that never falls due, whose readers the system wakes when the clock is set. -1 when it has none.
int make_timer() {
    const int fd = timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK);
    struct itimerspec never = {};
    never.it_value.tv_sec = std::numeric_limits<time_t>::max();
    if (fd < 0 || timerfd_settime(fd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr) == 0) return fd;
    close(fd);
    return -1;
}

} // namespace

Clock_watch::Clock_watch(module_man& mm, int priority) : _task("kav.clock", 0, false) {
    if (_waiters.init(mm) != 0) exit(-132);
    // The timer first: a step in between is noticed twice rather than never.
    _timer = make_timer();
    _end = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    Util::Clock_offset::watch();
    check(); // from here on
    if (_timer < 0 || _end < 0 || _task.start(priority, runner, this) != 0)
        Debug_print::dprint("Clock_watch: no timer or thread: a sleeping diner is not woken when the clock is set\n");
}

Clock_watch::~Clock_watch() {
    if (_end >= 0) eventfd_write(_end, 1);
    _task.join();
    Util::Clock_offset::stop_watching();
    for (const int fd : {_timer, _end})
        if (fd >= 0) close(fd);
}

bool Clock_watch::check() {
    int64_t ms;
    {
        const Scoped_lock held(_mutex);
        struct timespec now;
        ms = _offset.look(now);
        if (ms == 0) return false;
        _last_ms.store(ms, std::memory_order_relaxed);
        _steps.fetch_add(1, std::memory_order_relaxed);
        const int64_t most = std::numeric_limits<int32_t>::max();
        Diner_info_list::get().clock_stepped(static_cast<int32_t>(std::clamp(ms / 1000, -most, most)),
                                             static_cast<int>(ms % 1000));
        _waiters.send(waiter_event(module_id(), event_set, 0), waiter_descriptor::drop_duplicates);
    }
    Debug_print::dprint("Clock_watch: the clock was set %s by %lld.%03d s, timeouts move along\n",
                        ms > 0 ? "forward" : "back", std::abs(ms / 1000LL), static_cast<int>(std::abs(ms % 1000)));
    return true;
}

void* Clock_watch::runner(void* watch) {
    static_cast<Clock_watch*>(watch)->run();
    return nullptr;
}

void Clock_watch::run() {
    struct pollfd wanted[] = {{_timer, POLLIN, 0}, {_end, POLLIN, 0}};
    for (;;) {
        poll(wanted, 2, -1);
        if (wanted[1].revents) return;
        uint64_t expirations;
        bool set = false;
        while (read(_timer, &expirations, sizeof expirations) < 0 && errno == ECANCELED) set = true;
        // Set and set back at once is no step, but whoever has worked out in between how long to sleep does so again.
        if (!check() && set) Diner_info_list::get().clock_stepped(0, 0);
    }
}
