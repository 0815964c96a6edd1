// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_number.h"
#include "glue/cds/CDS_remote.h"
#include <cstring>

namespace NV_store {

static constexpr const char* letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

bool NV_number_base::set(const NV_item& other) {
    if (other.get_number_type() != get_number_type() || other.get_type_byte() != get_type_byte()) return false;
    return set_bits(static_cast<const NV_number_base&>(other).get_bits(), notify_all);
}

// ---- stored record

bool NV_number_base::push_record(NV_iterator& it, uint64_t bits, int width) {
    bool valid;
    if (!wanted(it, valid)) return valid;
    if (!it.push_header(header(marker_value)) || !it.push_bits(bits, width)) return false;
    saved();
    return true;
}

bool NV_number_base::pop_record(NV_iterator& it, uint64_t& bits, int width) {
    Record_header stored;
    if (!it.pop_header(stored) || !(stored == header(marker_value))) return false;
    it.pop_bits(bits, width);
    loaded();
    return true;
}

// ---- text and remote format

void NV_number_base::_print(Debug::Dumper& dumper) const {
    Value_type(get_number_type()).print(get_bits(), name, dumper);
}

int NV_number_base::_to_string(char* buffer, int size) const {
    return Value_type(get_number_type()).to_string(get_bits(), buffer, size);
}

const char* NV_number_base::_from_string(const char* text) {
    const Value_type type(get_number_type());
    uint64_t value = 0;
    const char* end = type.from_string(&value, text);
    if (!end) return nullptr;
    // The adaptor takes one letter of "true"; a container reads on behind the word.
    if (type.is_bool() && strchr("FNTYfnty", *text)) end += strspn(end, letters);
    set_bits(type.get(&value), notify_all);
    return end;
}

Data_item::Serial_ret NV_number_base::serialise(CDS::Remote::Send_buffer& out, unsigned short& start_id) {
    if (serial_action_started(start_id)) Value_type(get_number_type()).append(out, get_bits());
    return serial_ok();
}

Data_item::Serial_ret NV_number_base::deserialise(CDS::Remote::Receive_buffer& in, unsigned short& start_id) {
    if (!serial_action_started(start_id)) return serial_ok();
    uint64_t bits;
    if (!Value_type(get_number_type()).pop(in, bits)) return serial_fail();
    set_bits(bits, notify_all);
    return serial_ok();
}

} // namespace NV_store
