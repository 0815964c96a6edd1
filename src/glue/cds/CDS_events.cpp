// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_events.h"
#include "glue/cds/CDSLookup.h"
#include "glue/diner/Trace.h"
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_descriptor.h"
#include "util/Bugger.h"
#include "util/Debug_print.h"
#include "util/Mspace.h"
#include "util/pick.h"
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace CDS {
namespace {

constexpr unsigned int space_size = 24576; // [bytes] the bound on what registrations may take

/// The memory of all registrations. Made on first use and never destroyed: heads may be statics of the application.
const Mspace& space() {
    alignas(std::max_align_t) static unsigned char region[space_size];
    static Mspace& event_space = *new Mspace(region, space_size, "cds_event");
    return event_space;
}
// Made when the library is loaded, so that usage reports list it from the start.
[[maybe_unused]] const Mspace& at_load = space();

int64_t end_of(const Event_node& n) { return int64_t(n.offset) + n.length; }

/// Without a caller holding the lock the trees may be walked and changed at once.
void check_locked([[maybe_unused]] const Head* head, [[maybe_unused]] const char* operation) {
#ifndef NDEBUG
    if (!head->is_locked()) Debug_print::dprint("CDS: %s without the head's lock\n", operation);
#endif
}

void fill(Event_recipient& r, waiter_descriptor* waiter, Reg_type type, int value, Access_base* access,
          Virt_access* virt) {
    r.waiter = waiter;
    r.type = type;
    switch (type) {
    case reg_value:
    case reg_value_direct:
        r.target = static_cast<unsigned>(value);
        break;
    case reg_access:
        if (!access && virt) access = &virt->access;
        r.target = reinterpret_cast<event_word_t>(access);
        break;
    case reg_virt_access:
        r.target = reinterpret_cast<event_word_t>(virt);
        break;
    }
}

} // namespace

void* Event_recipient::operator new(size_t n) noexcept { return space().malloc_for_new(static_cast<unsigned>(n)); }
void Event_recipient::operator delete(void* p) { space().free(p); }
void* Event_list::operator new(size_t n) noexcept { return space().malloc_for_new(static_cast<unsigned>(n)); }
void Event_list::operator delete(void* p) { space().free(p); }
void* Event_node::operator new(size_t n) noexcept { return space().malloc_for_new(static_cast<unsigned>(n)); }
void Event_node::operator delete(void* p) { space().free(p); }

// ---- ranges

Event_list::Event_list() { create<&Head::compare>(); }

Event_list::~Event_list() {
    while (Event_node* n = first()) {
        remove(n);
        delete n;
    }
}

void Event_node::release() {
    while (Event_recipient* r = recipients.pop()) delete r;
    delete children;
}

Event_node* Event_list::last_at_or_before(int offset) const {
    __bsnode* found = nullptr;
    for (__bsnode* at = header.greater; at;) {
        // Which way it goes is a coin toss: a branch would be guessed wrong every other time.
        const bool onward = static_cast<Event_node*>(static_cast<avl_bsnode*>(at))->offset <= offset;
        found = Util::pick(onward, at, found);
        at = Util::pick(onward, at->greater, at->less);
    }
    return static_cast<Event_node*>(static_cast<avl_bsnode*>(found));
}

bool Event_node::contains(const Event_node& o) const {
    return offset <= o.offset && end_of(*this) >= end_of(o) && length != o.length;
}

bool Wakeup_node::allowed(const Event_recipient* r) const {
    return !options || r->waiter != options->waiter_to_exclude;
}

bool Wakeup_node::changed(const Event_node* n) const {
    if (!new_data || !old_data) return true;
    const int64_t d = int64_t(n->offset) - offset;
    const int64_t count = d < 0 ? length : std::min(length, n->length);
    const int64_t from = std::max<int64_t>(d, 0);
    return count > 0 && memcmp(static_cast<const char*>(new_data) + from, static_cast<const char*>(old_data) + from,
                               static_cast<size_t>(count)) != 0;
}

// ---- the head

Head::Head(module_man* modules, unsigned long word) : _word(word) {
    if (!modules) return;
    // Extended modules: with ordinary ones the waiter would merge events that differ only in their target.
    modules->init_module(&_module_value, true);
    modules->init_module(&_module_access, true);
    modules->init_module(&_module_virt, true);
}

Head::~Head() = default;

short Head::module_of(Reg_type type) const {
    switch (type) {
    case reg_access:
        return _module_access;
    case reg_virt_access:
        return _module_virt;
    default:
        return _module_value;
    }
}

bool Head::is_event(const waiter_event& e, Reg_type type) const {
    return e.module_id == module_of(type) && e.id == 0 && e.module_id != 0;
}

/// Without a lookup tree, whatever does not end before it begins.
bool Head::lies_in_block(int offset, int length) const {
    const int64_t size = lookup ? int64_t(lookup->data_size()) : INT32_MAX;
    if (offset >= 0 && length >= 0 && int64_t(offset) + length <= size) return true;
    Debug_print::dprint("CDS: range of %d bytes at %d lies outside the block of %lld bytes\n", length, offset,
                        static_cast<long long>(size));
    return false;
}

int Head::event_register(waiter_descriptor* waiter, int offset, int length, Reg_type type, int value,
                         Access_base* access, Virt_access* virt) {
    check_locked(this, "event_register");
    if (!lies_in_block(offset, length)) return -1;
    Event_node key(offset, length);
    Event_recipient* const recipient = new Event_recipient;
    if (!recipient) {
        Debug_print::dprint("ERROR: Could not get memory for CDS des node\n");
        return -1;
    }
    fill(*recipient, waiter, type, value, access, virt);
    key.recipients.push(recipient); // the key owns it until it has found its place
    return cds_event_register_body(&_events, key);
}

/// Ranges of one list that overlap have no order that a signal could go by.
static void warn_of_overlap(const Event_node& key, const Event_node* before, const Event_node* behind) {
    const Event_node* const other = before && end_of(*before) > key.offset   ? before
                                    : behind && behind->offset < end_of(key) ? behind
                                                                             : nullptr;
    if (!other) return;
    Debug_print::dprint("CDS: range of %d bytes at %d overlaps that of %d at %d partly: signals may miss one\n",
                        key.length, key.offset, other->length, other->offset);
}

int Head::cds_event_register_body(Event_list* list, Event_node& key) {
    while (Event_node* n = list->last_at_or_before(key.offset)) {
        if (n->same(key)) {
            n->recipients.push(key.recipients.pop());
            return 0;
        }
        if (n->offset > key.offset || !n->contains(key)) break;
        if (!n->children && !(n->children = new Event_list)) {
            Debug_print::dprint("ERROR: Could not get mem CDS child tree\n");
            return -1;
        }
        list = n->children;
    }

    Event_node* const node = new Event_node(key.offset, key.length);
    if (!node) {
        Debug_print::dprint("ERROR: Could not get mem CDS node\n");
        return -1;
    }
    // The ranges inside the new one move below it, each with all it holds. The list that takes them is had before the
    // first one moves, so that a failure leaves everything where it was.
    while (Event_node* inner = list->find(&key, bst_greater_equal)) {
        if (inner->offset < key.offset || !key.contains(*inner)) break;
        if (!node->children && !(node->children = new Event_list)) {
            Debug_print::dprint("ERROR: Could not get mem CDS child tree\n");
            delete node;
            return -1;
        }
        list->remove(inner);
        node->children->insert(inner);
    }
    warn_of_overlap(key, list->last_at_or_before(key.offset), list->find(&key, bst_greater_equal));
    node->recipients.push(key.recipients.pop());
    return list->insert(node);
}

int Head::event_unregister(waiter_descriptor* waiter, int offset, int length, Reg_type type, int value,
                           Access_base* access, Virt_access* virt) {
    check_locked(this, "event_unregister");
    Event_node key(offset, length);
    Event_recipient wanted;
    fill(wanted, waiter, type, value, access, virt);

    Event_node* n = nullptr;
    for (Event_list* list = &_events; list; list = n->children) {
        n = list->last_at_or_before(offset);
        if (!n) return -1;
        if (n->same(key)) break;
        if (n->offset > key.offset || !n->contains(key)) return -1;
    }
    if (!n || !n->same(key)) return -1;
    for (Event_recipient& r : n->recipients) {
        if (!(r == wanted)) continue;
        n->recipients.remove(&r);
        delete &r;
        return 0;
    }
    return -1;
}

int Head::event_signal(const void* new_data, const void* old_data, int offset, int length, Options* options) {
    check_locked(this, "event_signal");
    if (Trace::on(Trace::range_signalled)) {
        Trace::put(Trace::range_signalled, 0, 0,
                   uint64_t{static_cast<uint32_t>(offset)} << 32 | static_cast<uint32_t>(length));
    }
    const Wakeup_node w(offset, length, new_data, old_data, options);
    const int result = signal_body(&_events, w);
    if (lookup && new_data && old_data && length > 0)
        lookup->signal_update(new_data, old_data, static_cast<unsigned>(length));
    return result;
}

int Head::signal_body(Event_list* list, const Wakeup_node& w) {
    while (Event_node* n = list->last_at_or_before(w.offset)) {
        if (n->same(w)) {
            wake_descend(n, w);
            return 0;
        }
        if (n->offset > w.offset || !n->contains(w)) break;
        wake(n, w);
        if (!n->children) return 0;
        list = n->children;
    }
    for (Event_node* n = list->find(&w, bst_greater_equal); n && w.contains(*n); n = list->next(n)) wake_descend(n, w);
    return 0;
}

void Head::wake_descend(Event_node* n, const Wakeup_node& w) {
    wake(n, w);
    if (!n->children) return;
    for (Event_node& child : *n->children) wake_descend(&child, w);
}

void Head::wake(Event_node* n, const Wakeup_node& w) {
    if (!w.changed(n)) return;
    for (const Event_recipient& r : n->recipients)
        if (waiter_descriptor* const waiter = r.waiter; waiter && w.allowed(&r))
            waiter->send_event(waiter_event(module_of(r.type), 0, r.target), true, false);
}

// ---- the way up, from an item of the lookup tree: the tree itself knows no head

/// The head's lock is held.
void Lookup_root::notify_head(const void* address, unsigned int size) KAV_NO_THREAD_SAFETY_ANALYSIS {
    const ptrdiff_t offset = static_cast<const char*>(address) - static_cast<const char*>(base);
    head->event_signal(address, nullptr, static_cast<int>(offset), static_cast<int>(size), nullptr);
}

// ---- handles

namespace {

/// The caller holds the head's lock.
bool initialised(const Access_base& access, const char* complaint) KAV_ASSERT_CAPABILITY(access.head) {
    if (!access.head) Bugger::report_bug(complaint);
    return access.head != nullptr;
}

} // namespace

int Access_base::reg(waiter_descriptor* waiter, int value) {
    if (!initialised(*this, "CDS: Tried to reg with no init")) return -1;
    return head->event_register(waiter, offset, length, reg_value, value, nullptr, nullptr);
}

int Access_base::unreg(waiter_descriptor* waiter, int value) {
    if (!initialised(*this, "CDS: Tried to unreg with no init")) return -1;
    return head->event_unregister(waiter, offset, length, reg_value, value, nullptr, nullptr);
}

int Access_base::autoreg(waiter_descriptor* waiter) {
    if (!initialised(*this, "CDS: Tried to autoreg with no init")) return -1;
    return head->event_register(waiter, offset, length, reg_access, 0, this, nullptr);
}

int Access_base::autounreg(waiter_descriptor* waiter) {
    if (!initialised(*this, "CDS: Tried to autounreg with no init")) return -1;
    return head->event_unregister(waiter, offset, length, reg_access, 0, this, nullptr);
}

Virt_access::~Virt_access() = default;

int Virt_access::autoreg(waiter_descriptor* waiter) {
    if (!initialised(access, "CDS: Tried to autoreg with no init")) return -1;
    return access.head->event_register(waiter, access.offset, access.length, reg_virt_access, 0, &access, this);
}

int Virt_access::autounreg(waiter_descriptor* waiter) {
    if (!initialised(access, "CDS: Tried to autounreg with no init")) return -1;
    return access.head->event_unregister(waiter, access.offset, access.length, reg_virt_access, 0, &access, this);
}

} // namespace CDS
