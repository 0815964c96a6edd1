// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_items.h"
#include "glue/cds/CDS_events.h"
#include "util/Debug_print.h"
#include <cstdio>

namespace CDS {

Root::Root(Head& h, const char* item_name, void* block, unsigned int size, const char* item_comment)
    : Lookup_root(h, block), _size(size) {
    set_name(item_name);
    set_comment(item_comment);
}

void Root::finish() {
    unsigned short min = 0xFFFF, max = 0;
    set_minmax(min, max);
    head->set_lookup(this);
}

Struct::Struct(Lookup_struct& parent_struct, const char* item_name, const void* place, unsigned int size,
               const char* item_comment, Update_listener* listener)
    : Lookup_struct(parent_struct), _place(place), _size(size) {
    set_name(item_name);
    set_comment(item_comment);
    update_listener = listener;
    _fixed_extent = _fixed_stream = true;
    parent_struct.add_item(*this);
}

void print_declaration_line(int indent, const Lookup_item& item, int elements) {
    char extent[16] = "";
    if (elements) snprintf(extent, sizeof extent, "[%d]", elements);
    const char* const comment = item.get_comment();
    const bool has_comment = comment && *comment;
    Debug_print::dprint("%*s%s %s%s;%s%s\n", 4 * indent, "", item.get_type_name(), item.get_name(), extent,
                        has_comment ? " // " : "", has_comment ? comment : "");
}

} // namespace CDS
