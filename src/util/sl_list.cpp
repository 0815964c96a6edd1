// SPDX-License-Identifier: MIT
#include "util/sl_list.h"
#include "util/Bugger.h"

// The board's applications were laid out with these sizes.
static_assert(sizeof(void*) != 4 || (sizeof(sll_node) == 4 && sizeof(sl_list) == 12));

/// A function, not a constant: static objects of other files fill lists before this file is initialised.
static sll_node* none() { return sll_node::last_mark(); }

int sl_list::push(sll_node* n) {
    if (n->in_list()) Bugger::report_bug("sl_list::push, already in a list.\n");
    if (head == none()) {
        head = n;
    } else {
        tail->next = n;
    }
    tail = n;
    n->next = none();
    ++count;
    return 1;
}

int sl_list::remove(sll_node* n) {
    sll_node* before = none();
    for (sll_node* at = head; at != none(); before = at, at = at->next) {
        if (at != n) continue;
        if (before == none()) {
            head = n->next;
        } else {
            before->next = n->next;
        }
        if (tail == n) tail = before;
        n->next = nullptr;
        --count;
        return 1;
    }
    return 0;
}

sll_node* sl_list::pop() {
    sll_node* n = first();
    if (n) remove(n);
    return n;
}

void sl_list::push_all(sl_list& from) {
    if (from.count == 0) return;
    if (head == none()) {
        head = from.head;
    } else {
        tail->next = from.head;
    }
    tail = from.tail;
    count += from.count;
    from.head = from.tail = none();
    from.count = 0;
}

sll_node* sl_list::operator[](int i) const {
    if (i < 0 || i >= count) return nullptr;
    sll_node* at = head;
    while (i-- > 0) at = at->next;
    return at;
}

sll_node* sl_list::first() const { return head == none() ? nullptr : head; }

sll_node* sl_list::next(const sll_node* n) const { return n->next == none() ? nullptr : n->next; }
