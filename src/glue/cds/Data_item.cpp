// SPDX-License-Identifier: MIT
#include "glue/cds/Data_item.h"
#include "util/Debug_print.h"
#include "util/assertion.h"

unsigned short Data_item::lookup_max_id = 1;

namespace {

constexpr unsigned short last_good_id = 0xFFFD;
constexpr unsigned short shared_id = 0xFFFF;

unsigned short take_id() {
    const unsigned short id = Data_item::lookup_max_id;
    if (id == shared_id) return id;
    if (id > last_good_id) Debug_print::dprint("Lookup IDs are exhausted, time to move to 24 bit IDs\n");
    Data_item::lookup_max_id = static_cast<unsigned short>(id + 1);
    return id;
}

} // namespace

Data_item::Data_item() : id(take_id()) {}

Data_item::Data_item(unsigned short fixed_id) : id(fixed_id) {}

void Data_item::_print(Debug::Dumper&) const {}

void Data_item::serialise_structure(CDS::Remote::Send_buffer&, int) {
    Debug_print::try_print("WHY CALL ME\n");
    Util::flush_and_abort();
}
