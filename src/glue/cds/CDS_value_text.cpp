// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_value_text.h"
#include "glue/cds/CDS_items.h"

namespace CDS::Remote {

const char* type_name(Data_item::item_type_t type) {
    switch (type) {
    case Data_item::item_root:
    case Data_item::item_struct:
        return "struct";
#define KAV_CASE(T, name, NAME)                                                                                        \
    case Data_item::item_##name:                                                                                       \
        return type_name_of<T>();
        KAV_BASE_TYPES(KAV_CASE)
#undef KAV_CASE
    default:
        return "(unknown)";
    }
}

int value_width(Data_item::item_type_t type) { return Value_type(type).width(); }

bool pop_text(Receive_buffer& in, Data_item::item_type_t type, std::string& text) {
    const Value_type kind(type);
    uint64_t bits;
    if (!kind.pop(in, bits)) return false;
    text = kind.text(bits);
    return true;
}

bool pop_number(Receive_buffer& in, Data_item::item_type_t type, double& number) {
    const Value_type kind(type);
    uint64_t bits;
    if (!kind.pop(in, bits)) return false;
    number = kind.number(bits);
    return true;
}

bool append_text(Send_buffer& out, Data_item::item_type_t type, const std::string& text) {
    const Value_type kind(type);
    std::string_view number = text;
    if (!kind.is_bool() && number.substr(0, 1) == "+" && number.substr(1, 1) != "-") number.remove_prefix(1);
    uint64_t bits;
    if (kind.width() == 0 || !kind.read(number, bits)) return false;
    kind.append(out, bits);
    return true;
}

} // namespace CDS::Remote
