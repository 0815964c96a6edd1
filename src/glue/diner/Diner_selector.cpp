// SPDX-License-Identifier: MIT
#include "glue/diner/Diner_selector.h"
#include <cstring>
#include <functional>
#include <utility>

Diner_selector::Diner_selector() { _diners.create<descriptor_compare>(); }

Diner_selector::~Diner_selector() {
    const Scoped_lock held(_mutex);
    for (Diner& d : _diners) d._selector = nullptr;
    _diners.flush();
}

int Diner_selector::descriptor_compare(const Diner* a, const Diner* b) {
    const Diner::Descriptor &x = a->descriptor, &y = b->descriptor;
    if (x.id != y.id) return x.id < y.id ? -1 : 1;
    return strcmp(x.name, y.name);
}

int Diner_selector::register_diner(Diner* d) {
    const Scoped_lock held(_mutex);
    return d->in_tree() ? -1 : enter(*d);
}

int Diner_selector::deregister_diner(const Diner* d) {
    const Scoped_lock held(_mutex);
    if (d->_selector != this) return -1;
    leave(const_cast<Diner&>(*d));
    return 0;
}

/// With both locks, so that the diner is always in one of them and stays selected where it stays. Only here two are
/// held, always that at the lower address first. The analysis does not follow locks that may not be there.
int Diner_selector::move(Diner& d, Diner_selector* to) KAV_NO_THREAD_SAFETY_ANALYSIS {
    Diner_selector* const from = d._selector;
    if (from == to) return 0;
    Mutex* outer = from ? &from->_mutex : nullptr;
    Mutex* inner = to ? &to->_mutex : nullptr;
    if (std::less<>()(inner, outer)) std::swap(outer, inner);
    const Scoped_lock first(outer), second(inner);
    if (to && to->_diners.find(&d, bst_equal)) return -1;
    if (from) from->leave(d);
    return to ? to->enter(d) : 0;
}

/// The diner is in no selector.
int Diner_selector::enter(Diner& d) {
    if (_diners.find(&d, bst_equal) || _diners.insert(&d) != 0) return -1;
    d._selector = this;
    return 0;
}

void Diner_selector::leave(Diner& d) {
    _diners.remove(&d);
    d._selector = nullptr;
    if (_selected != &d) return;
    _selected = nullptr;
    halt(d);
}

/// A diner that was started, but has not run yet, is in the same state as one that was not; it may begin to run just
/// before its start is taken back.
void Diner_selector::halt(Diner& d) {
    if (d.stop() != 0 && !d.withdraw_start()) d.stop();
}

int Diner_selector::select_diner(int index) {
    const Scoped_lock held(_mutex);
    return select(_diners[index]);
}

int Diner_selector::select_diner(const Diner::Descriptor& d) {
    const Scoped_lock held(_mutex);
    _dummy.descriptor = d;
    return select(_diners.find(&_dummy, bst_equal));
}

int Diner_selector::select(Diner* d) {
    if (!d || d->_entering) return -1;
    if (d == _selected) return 0;
    if (_selected) halt(*_selected);
    _selected = d;
    // One that was stopped just before may be on its way yet: left there it would be selected and never run.
    if (d->start() != 0 && d->_task && d->wait_stopped()) d->start();
    return 0;
}

Diner* Diner_selector::get_selected() const {
    const Scoped_lock held(_mutex);
    return _selected;
}

Diner* Diner_selector::operator[](int index) const {
    const Scoped_lock held(_mutex);
    return _diners[index];
}

int Diner_selector::num_diners() const {
    const Scoped_lock held(_mutex);
    return _diners.count();
}

void Diner_selector::get_descriptors(Diner::Descriptor* out, int max) const {
    const Scoped_lock held(_mutex);
    for (const Diner& d : _diners) {
        if (max-- <= 0) return;
        *out++ = d.descriptor;
    }
}
