// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Trouble_code_table.h"

Trouble_code_table::Trouble_code_table(unsigned capacity)
    : _capacity(capacity), _entries(std::make_unique<Entry[]>(capacity)) {
    _tree.create<by_key>();
    for (unsigned i = capacity; i-- > 0;) link(_entries[i], unused);
}

Trouble_code_table::~Trouble_code_table() { _tree.flush(); }

int Trouble_code_table::by_key(const Entry* a, const Entry* b) { return a->key < b->key ? -1 : a->key > b->key; }

Trouble_code_table::Entry* Trouble_code_table::find(uint32_t key) const {
    Entry sought;
    sought.key = key;
    return _tree.find(&sought, bst_equal);
}

Trouble_code_table::Entry* Trouble_code_table::add(uint32_t key, State s) {
    if (count(unused) == 0) {
        Entry* const oldest = _chains[previous].oldest;
        if (!oldest) return nullptr;
        erase(*oldest);
    }
    Entry& e = *newest(unused);
    e.key = key;
    e.count = 0;
    e.until_cleared = false;
    e.lamp = Lamp();
    e.first = e.last = e.announced = Atime(false);
    _tree.insert(&e);
    move(e, s);
    return &e;
}

void Trouble_code_table::move(Entry& e, State s) {
    unlink(e);
    link(e, s);
}

void Trouble_code_table::erase(Entry& e) {
    _tree.remove(&e);
    move(e, unused);
}

void Trouble_code_table::unlink(Entry& e) {
    Chain& chain = _chains[e._state];
    (e._newer ? e._newer->_older : chain.newest) = e._older;
    (e._older ? e._older->_newer : chain.oldest) = e._newer;
    --chain.count;
}

void Trouble_code_table::link(Entry& e, State s) {
    Chain& chain = _chains[s];
    e._state = s;
    e._newer = nullptr;
    e._older = chain.newest;
    (chain.newest ? chain.newest->_newer : chain.oldest) = &e;
    chain.newest = &e;
    ++chain.count;
}
