// SPDX-License-Identifier: MIT
#include "glue/diner/waiter_descriptor.h"
#include "glue/diner/Trace_ring.h"
#include "glue/diner/probes.h"
#include "glue/diner/waiter_ref.h"
#include "util/Debug_print.h"
#include "util/ticks.h"
#include "util/tsan.h"
#include <QCoreApplication>
#include <QEvent>
#include <algorithm>
#include <climits>
#include <utility>

waiter_descriptor::waiter_descriptor() = default;

waiter_descriptor::~waiter_descriptor() {
    waiter_ref_base::detach_all(this);
    deinit();
    if (num_queued() > 0) // else the pool need not be there any more
        _modules.load()->while_alive([](void* w) { static_cast<waiter_descriptor*>(w)->flush_events(); }, this);
    _enabled = false;
}

int waiter_descriptor::init(module_man* mm) { return init(mm, nullptr, 0); }

int waiter_descriptor::init(module_man* mm, QObject* target, int type) {
    const Scoped_lock held(_mutex);
    _modules = mm;
    _target = target;
    _type = type;
    _enabled = true;
    _initialised = true;
    return 0;
}

void waiter_descriptor::deinit() {
    const Scoped_lock held(_mutex);
    _target = nullptr;
    _type = 0;
    _initialised = false;
}

void waiter_descriptor::set_enabled(bool on) {
    const Scoped_lock held(_mutex);
    _enabled = on;
}

int waiter_descriptor::send_event(const waiter_event& e, bool coalesce, bool unique) {
    if (!accepting()) {
        trace(Trace::event_dropped, e);
        return 0;
    }
    const bool merging = coalesce && e.module_id > 0;
    bool asleep = false;
    int result;
    if (merging || unique) { // only these look at what is queued already
        const Scoped_lock taking(_taking);
        const Scoped_lock held(_mutex);
        result = append_or_merge(e, merging, unique, asleep);
    } else {
        const Scoped_lock held(_mutex);
        result = append(e, asleep);
    }
    // With the locks free, so that the consumer does not wake only to wait for them.
    if (asleep) _tokens.wake();
    return result;
}

/// Queue `e` with its token: 0, also when it is dropped; -1 without room. `asleep`: the consumer sleeps and is to be
/// woken by _tokens.wake().
int waiter_descriptor::append(const waiter_event& e, bool& asleep) {
    if (!accepting()) { // disabled meanwhile: nothing may slip in after set_enabled(false) has returned
        trace(Trace::event_dropped, e);
        return 0;
    }
    if (enqueue(e) != 0) return -1;
    asleep = count_token();
    return 0;
}

/// append(), but for an event that has its like in the queue.
int waiter_descriptor::append_or_merge(const waiter_event& e, bool coalesce, bool unique, bool& asleep) {
    if (!accepting() || (unique && is_queued(e))) {
        trace(Trace::event_dropped, e);
        return 0;
    }
    if (!coalesce || !merge(e)) return append(e, asleep);
    asleep = count_token();
    trace(Trace::event_merged, e);
    return 0;
}

/// Give a token, all but the wake-up; true when that is to follow. With the lock held: who has disabled the waiter and
/// then takes all tokens has all that is queued.
bool waiter_descriptor::count_token() {
    if (!_target) return _tokens.count();
    give_mirrored_token();
    return false;
}

int waiter_descriptor::send_last(const waiter_event& e) {
    bool asleep;
    {
        const Scoped_lock held(_mutex);
        if (enqueue(e) != 0) return -1;
        _enabled = false;
        asleep = count_token();
    }
    if (asleep) _tokens.wake();
    return 0;
}

void waiter_descriptor::send_anonymous_event() {
    if (_target) {
        const Scoped_lock held(_mutex);
        if (_target) {
            give_mirrored_token();
            return;
        }
    }
    _tokens.give();
}

void waiter_descriptor::get_event(waiter_event* out) {
    _tokens.take();
    hand_out(out);
}

int waiter_descriptor::get_event(waiter_event* out, const Atime& deadline) {
    const int ticks = (deadline.get_ms_from_now() + 9) / 10;
    if (!_tokens.take(ticks * 10)) return -1;
    hand_out(out);
    return 0;
}

uint32_t waiter_descriptor::take_more_anonymous(const waiter_event& taken) {
    // A posted event that looks like a wake-up has been counted. Behind a true one the queue was empty when all tokens
    // that have been drawn were given, so none of them is an event's; unless a handler has taken an event since.
    const waiter_event& a = module_man::EVENT_ANONYMOUS;
    if (taken.module_id != a.module_id || taken.id != a.id || taken.repeat != 0 || _taken_number != 0) return 0;
    return static_cast<uint32_t>(_tokens.take_drawn());
}

void waiter_descriptor::flush_events() {
    waiter_event discarded;
    while (_tokens.take(0)) hand_out(&discarded);
}

int waiter_descriptor::num_queued() const {
    const Scoped_lock taking(_taking);
    const Scoped_lock held(_mutex);
    return _front.size() + _back.size();
}

void waiter_descriptor::reset_longest_queue() {
    const Scoped_lock held(_mutex);
    _longest = 0;
}

int waiter_descriptor::longest_queue() const {
    const Scoped_lock held(_mutex);
    return _longest;
}

/// What became of a post, but for one that was queued.
void waiter_descriptor::trace(Trace::Kind kind, const waiter_event& e) const {
    if (Trace::on(kind))
        Trace::put(kind, traced_as(), Trace_record::of_module(e.module_id), Trace_record::of_event(e.id));
}

void waiter_descriptor::trace_posted(const waiter_event& e) const {
    KAV_PROBE3(event_post, this, e.module_id, e.id);
    if (!Trace::on(Trace::event_posted)) return;
    const int queued = _back.size() + _num_front.load(std::memory_order_relaxed);
    const int free = _modules.load(std::memory_order_relaxed)->num_free_events();
    Trace::put(Trace::event_posted, traced_as(), Trace_record::of_module(e.module_id) | static_cast<uint16_t>(queued),
               Trace_record::of_event(e.id, _num_moved + static_cast<uint32_t>(_back.size()), free));
}

/// Hand out what one token stands for.
void waiter_descriptor::hand_out(waiter_event* out) {
    waiter_event_node* used = nullptr;
    {
        const Scoped_lock taking(_taking);
        if (_front.size() == 0) fill_front();
        waiter_event_node* const n = _front.first();
        _taken_posted.at = 0;
        _taken_number = 0;
        if (!n) {
            *out = module_man::EVENT_ANONYMOUS;
            return;
        }
        const uint32_t place = _num_taken + 1;
        _taken_number = _num_before_front + place;
        if (place % one_measured_in == 1)
            _taken_posted = {std::exchange(_front_posted[place / one_measured_in], 0),
                             place == 1 ? 1 : one_measured_in};
        if (n->event.module_id > 0 && n->event.repeat > 1) {
            *out = n->event;
            --n->event.repeat;
            return;
        }
        used = _front.pop();
        ++_num_taken;
        _num_front.store(_front.size(), std::memory_order_relaxed);
    }
    *out = std::move(used->event);
    _modules.load(std::memory_order_relaxed)->return_used_event(used);
}

/// Move what was posted to the empty front.
void waiter_descriptor::fill_front() {
    const Scoped_lock held(_mutex);
    _front.push_all(_back);
    const auto moved = static_cast<uint32_t>(_front.size());
    std::copy(_posted, _posted + (moved + one_measured_in - 1) / one_measured_in, _front_posted);
    _num_before_front = _num_moved;
    _num_moved += moved;
    _num_taken = 0;
    _max_in_front = _front.size();
    _num_front.store(_max_in_front, std::memory_order_relaxed);
}

/// Append a copy of `e`: 0; -1 when there is no room or no memory for its block.
int waiter_descriptor::enqueue(const waiter_event& e) {
    // The consumer keeps changing the length, which is only looked at when the most that it can be is too much.
    module_man& pool = *_modules.load(std::memory_order_relaxed);
    int queued = _back.size() + _max_in_front;
    waiter_event_node* n = pool.get_blank_event(queued);
    if (!n || queued >= _longest) {
        _max_in_front = _num_front.load(std::memory_order_relaxed);
        queued = _back.size() + _max_in_front;
    }
    if (!n) n = pool.get_blank_event(queued);
    if (!n) {
        trace(Trace::event_refused, e);
        return -1;
    }
    n->event = e;
    n->event.repeat = e.module_id > 0 ? 1 : 0;
    if (e.extended && !n->event.extended) {
        pool.return_used_event(n); // an event without its block would mislead the receiver
        trace(Trace::event_refused, e);
        return -1;
    }
    _back.push(n);
    // Where somebody is woken, reading a clock goes under in the cost of that; else it would not.
    const auto place = static_cast<uint32_t>(_back.size());
    if (place % one_measured_in == 1) _posted[place / one_measured_in] = Util::ticks();
    _longest = std::max(_longest, queued + 1);
    trace_posted(e);
    return 0;
}

/// Count `e`, of an ordinary module, into a queued event of the same kind; false when there is none.
bool waiter_descriptor::merge(const waiter_event& e) {
    if (e.extended) {
        Debug_print::bprint("ERROR: Event expects extended module id\n");
        QCoreApplication::exit(-147);
    }
    for (const auto* part : {&_front, &_back}) {
        for (waiter_event_node& n : *part) {
            // A full count takes no more, a later node may: every token must have its delivery.
            if (n.event.module_id != e.module_id || n.event.id != e.id || n.event.repeat == USHRT_MAX) continue;
            ++n.event.repeat;
            return true;
        }
    }
    return false;
}

/// Events of extended modules differ in their data as well.
bool waiter_descriptor::is_queued(const waiter_event& e) const {
    for (const auto* part : {&_front, &_back}) {
        for (const waiter_event_node& n : *part) {
            if (n.event.module_id != e.module_id || n.event.id != e.id) continue;
            if (e.module_id > 0 || n.event.data == e.data) return true;
        }
    }
    return false;
}

/// A token and its Qt event, in this order: the target's handler takes without waiting. With the lock held, so that
/// nothing is posted to a target once deinit() has returned.
void waiter_descriptor::give_mirrored_token() {
    _tokens.give();
    Util::tsan::ignore_writes_begin(); // Qt's queue orders it before the target's event(), where ours may be read
    auto* const event = new QEvent(static_cast<QEvent::Type>(_type));
    Util::tsan::ignore_writes_end();
    QCoreApplication::postEvent(_target, event);
}
