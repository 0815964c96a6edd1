// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_descriptor.h"
#include "util/Debug_print.h"
#include "util/tsan.h"
#include <QCoreApplication>
#include <algorithm>
#include <climits>
#include <mutex>
#include <utility>

waiter_descriptor::waiter_descriptor() = default;

waiter_descriptor::~waiter_descriptor() {
    deinit();
    flush_events();
    _enabled = false;
}

int waiter_descriptor::init(module_man* mm) { return init(mm, nullptr, QEvent::None); }

int waiter_descriptor::init(module_man* mm, QObject* target, QEvent::Type type) {
    std::lock_guard<Mutex> lock(_mutex);
    _modules = mm;
    _target = target;
    _type = type;
    _enabled = true;
    _initialised = true;
    return 0;
}

void waiter_descriptor::deinit() {
    std::lock_guard<Mutex> lock(_mutex);
    _target = nullptr;
    _type = QEvent::None;
    _initialised = false;
}

void waiter_descriptor::set_enabled(bool on) {
    std::lock_guard<Mutex> lock(_mutex);
    _enabled = on;
}

int waiter_descriptor::send_event(const waiter_event& e, bool coalesce, bool unique) {
    if (!accepting()) return 0;
    {
        std::lock_guard<Mutex> lock(_mutex);
        if (!accepting()) return 0; // disabled meanwhile: nothing may slip in after set_enabled(false) has returned
        if (unique && is_queued(e)) return 0;
        if (!(coalesce && e.module_id > 0 && merge(e)) && enqueue(e) != 0) return -1;
        if (_target) {
            give_mirrored_token();
            return 0;
        }
    }
    // Given with the lock free, so that the taker does not wake only to wait for the lock.
    give_token();
    return 0;
}

void waiter_descriptor::send_anonymous_event() {
    if (_target) {
        std::lock_guard<Mutex> lock(_mutex);
        if (_target) return give_mirrored_token();
    }
    give_token();
}

void waiter_descriptor::get_event(waiter_event* out) {
    _tokens.acquire(1);
    Util::tsan::acquire(&_tokens);
    take(out);
}

int waiter_descriptor::get_event(waiter_event* out, const Atime& deadline) {
    const int ticks = (deadline.get_ms_from_now() + 9) / 10;
    const bool taken = ticks < 1 ? _tokens.tryAcquire(1) : _tokens.tryAcquire(1, ticks * 10);
    if (!taken) return -1;
    Util::tsan::acquire(&_tokens);
    take(out);
    return 0;
}

void waiter_descriptor::flush_events() {
    waiter_event discarded;
    while (get_event(&discarded, Atime::now()) == 0) {
    }
}

int waiter_descriptor::num_queued() const {
    std::lock_guard<Mutex> lock(_mutex);
    return _queue.size();
}

int waiter_descriptor::longest_queue() const {
    std::lock_guard<Mutex> lock(_mutex);
    return _longest;
}

/// Hand out what one token stands for.
void waiter_descriptor::take(waiter_event* out) {
    waiter_event_node* used = nullptr;
    {
        std::lock_guard<Mutex> lock(_mutex);
        waiter_event_node* n = _queue.first();
        if (!n) {
            *out = module_man::EVENT_ANONYMOUS;
            return;
        }
        if (n->event.module_id > 0 && n->event.repeat > 1) {
            *out = n->event;
            --n->event.repeat;
            return;
        }
        used = _queue.pop();
    }
    *out = std::move(used->event);
    _modules->return_used_event(used);
}

/// Append a copy of `e`: 0; -1 when there is no room or no memory for its block. Lock held.
int waiter_descriptor::enqueue(const waiter_event& e) {
    if (_queue.size() > _modules->num_free_events() / 2) return -1;
    waiter_event_node* n = _modules->get_blank_event();
    if (!n) return -1;
    n->event = e;
    n->event.repeat = e.module_id > 0 ? 1 : 0;
    if (e.extended && !n->event.extended) {
        _modules->return_used_event(n); // an event without its block would mislead the receiver
        return -1;
    }
    _queue.push(n);
    _longest = std::max(_longest, _queue.size());
    return 0;
}

/// Count `e`, of an ordinary module, into a queued event of the same kind; false when there is none. Lock held.
bool waiter_descriptor::merge(const waiter_event& e) {
    if (e.extended) {
        Debug_print::bprint("ERROR: Event expects extended module id\n");
        QCoreApplication::exit(-147);
    }
    for (waiter_event_node& n : _queue) {
        // A full count takes no more, a later node may: every token must have its delivery.
        if (n.event.module_id != e.module_id || n.event.id != e.id || n.event.repeat == USHRT_MAX) continue;
        ++n.event.repeat;
        return true;
    }
    return false;
}

/// Events of extended modules differ in their data as well. Lock held.
bool waiter_descriptor::is_queued(const waiter_event& e) const {
    for (const waiter_event_node& n : _queue) {
        if (n.event.module_id != e.module_id || n.event.id != e.id) continue;
        if (e.module_id > 0 || n.event.data == e.data) return true;
    }
    return false;
}

void waiter_descriptor::give_token() {
    Util::tsan::release(&_tokens);
    _tokens.release(1);
}

/// A token and its Qt event, in this order: the target's handler takes without waiting. The lock is held, so that
/// nothing is posted to a target once deinit() has returned.
void waiter_descriptor::give_mirrored_token() {
    give_token();
    Util::tsan::release(_target);
    QCoreApplication::postEvent(_target, new QEvent(_type));
}
