// SPDX-License-Identifier: MIT
#include "glue/diner/Diner_selector.h"
#include <cstring>
#include <mutex>

using Guard = std::lock_guard<Mutex>;

Diner_selector::Diner_selector() { _diners.create<descriptor_compare>(); }

Diner_selector::~Diner_selector() {
    const Guard guard(_mutex);
    for (Diner& d : _diners) d.selector = nullptr;
    _diners.flush();
}

int Diner_selector::descriptor_compare(const Diner* a, const Diner* b) {
    const Diner::Descriptor &x = a->descriptor, &y = b->descriptor;
    if (x.id != y.id) return x.id < y.id ? -1 : 1;
    return strcmp(x.name, y.name);
}

int Diner_selector::register_diner(Diner* d) {
    const Guard guard(_mutex);
    if (_diners.find(d, bst_equal)) return -1;
    return _diners.insert(d);
}

int Diner_selector::deregister_diner(const Diner* d) {
    const Guard guard(_mutex);
    if (!d->in_tree() || _diners.remove(d) != 0) return -1;
    if (_selected == d) _selected = nullptr;
    return 0;
}

int Diner_selector::select_diner(int index) {
    const Guard guard(_mutex);
    return select(_diners[index]);
}

int Diner_selector::select_diner(const Diner::Descriptor& d) {
    const Guard guard(_mutex);
    _dummy.descriptor = d;
    return select(_diners.find(&_dummy, bst_equal));
}

int Diner_selector::select(Diner* d) {
    if (!d) return -1;
    if (d == _selected) return 0;
    if (_selected) _selected->stop();
    _selected = d;
    d->start();
    return 0;
}

Diner* Diner_selector::get_selected() const {
    const Guard guard(_mutex);
    return _selected;
}

Diner* Diner_selector::operator[](int index) const {
    const Guard guard(_mutex);
    return _diners[index];
}

int Diner_selector::num_diners() const {
    const Guard guard(_mutex);
    return _diners.count();
}

void Diner_selector::get_descriptors(Diner::Descriptor* out, int max) const {
    const Guard guard(_mutex);
    for (const Diner& d : _diners) {
        if (max-- <= 0) return;
        *out++ = d.descriptor;
    }
}
