// SPDX-License-Identifier: MIT
// What everything else is built from: instants, the ordered tree, the list, the debug output, a memory space.
//
// Prints:
//     2500 ms apart
//     a month apart counts as 604800000 ms
//     by size: 12 V 24 V 48 V
//     48 V stands at position 2, behind 24 V
//     still in the queue: 24 V 6 V
//     first come: 24 V
//     [...] examples/foundation:7: 'valve 3 stuck'
//         76 61 6c 76  valv
//         65 00 ff     e..
//     65(e) 00 FF
//     a block of 512 bytes: yes; of 8000: no
//     add 0x14
//     Failed to allocate 8000 bytes in charts allocator
#include "util/Debug_base.h"
#include "util/Debug_print.h"
#include "util/Mspace.h"
#include "util/atime.h"
#include "util/avl_bstree.h"
#include "util/sl_list.h"
#include <cstdio>
#include <initializer_list>

namespace {

/// An element of a tree and of a list carries their links itself: neither allocates.
struct Battery : avl_bsnode, sll_node {
    explicit Battery(int v) : volts(v) {}
    static int by_volts(const Battery* a, const Battery* b) { return a->volts - b->volts; }
    const int volts;
};

void show_time() {
    const Atime start = Atime::now();
    const Atime later = start + 2500; // [ms]
    printf("%d ms apart\n", later - start);
    Atime month = start;
    month.time -= 30 * 24 * 3600;
    printf("a month apart counts as %d ms\n", start - month);
}

void show_containers() {
    Battery tractor(12), truck(24), forklift(48), boat(6);
    c_bstree<avl_bstree, Battery> by_size;
    by_size.create<Battery::by_volts>();
    c_sl_list<Battery> queue;
    for (Battery* b : {&truck, &forklift, &tractor}) {
        by_size.insert(b);
        queue.push(b);
    }
    printf("by size:");
    for (const Battery& b : by_size) printf(" %d V", b.volts);
    int index;
    const Battery* const found = by_size.find(&forklift, bst_equal, &index);
    printf("\n%d V stands at position %d, behind %d V\n", found->volts, index, by_size.previous(found)->volts);
    queue.remove(&forklift); // from anywhere
    queue.remove(&tractor);
    queue.push(&boat);
    printf("still in the queue:");
    for (const Battery* b = queue.first(); b; b = queue.next(b)) printf(" %d V", b->volts);
    printf("\nfirst come: %d V\n", queue.pop()->volts);
    by_size.flush(); // elements leave their containers before they die
    while (queue.pop()) {
    }
}

void show_debug_output() {
    Debug_print::debug_file = stdout; // standard error unless something else is chosen
    Debug_print::dprint_detail("examples/foundation", 7, "valve %d stuck\n", 3);
    constexpr unsigned char bytes[] = {'v', 'a', 'l', 'v', 'e', 0, 0xFF};
    Debug_print::printhex(bytes, 7, 4);
    Debug_print::binprint(bytes + 4, 3);
    Debug_print::dprint("\n");
}

void show_memory() {
    alignas(16) static unsigned char region[4096];
    static Mspace space(region, sizeof region, "charts"); // lives as long as the process
    void* const block = space.malloc(512);
    printf("a block of 512 bytes: %s; of 8000: %s\n", block ? "yes" : "no", space.malloc(8000) ? "yes" : "no");
    space.free(block);
    Debug_filter::set_filters("14"); // category 20, in hexadecimal: from here on it tells
    space.malloc(8000);
}

} // namespace

int main() {
    show_time();
    show_containers();
    show_debug_output();
    show_memory();
}
