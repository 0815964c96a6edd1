// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_values.h"
#include "glue/cds/CDS_remote.h"
#include "glue/cds/CDS_remote_values.h"
#include "glue/cds/Data_item_text.h"
#include <cstring>
#include <type_traits>

namespace NV_store {

static constexpr const char* letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::_set(T v, notify_t how) {
    const bool changed = v != _value;
    _value = v;
    return !changed || how == notify_none || notify_updated(true, how);
}

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::set(const NV_item& other) {
    if (other.get_number_type() != type || other.get_type_byte() != get_type_byte()) return false;
    return set(static_cast<const NV_number&>(other).get());
}

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::set_default(bool) {
    _set(_default, notify_all);
    return true;
}

// ---- stored record

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::serialise(NV_iterator* it) {
    bool valid;
    if (!wanted(*it, valid)) return valid;
    if (!it->push_header(header(marker_value)) || !push_value(*it, _value)) return false;
    saved();
    return true;
}

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::deserialise(NV_iterator* it) {
    Record_header stored;
    if (!it->pop_header(stored) || !(stored == header(marker_value))) return false;
    pop_value(*it, _value); // a cut value leaves the old one; the frame's CRC tells
    loaded();
    return true;
}

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::deserialise_unknown(NV_iterator* it) {
    return it->skip_value(sizeof(T), false);
}

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::deserialise_unknown_small_array(NV_iterator* it) {
    return it->skip_value(sizeof(T), true);
}

// ---- text and remote format

template <class T, Data_item::item_type_t type>
void NV_number<T, type>::_print(Debug::Dumper& dumper) const {
    Data_item_stringify<T>(&_value).print(name, dumper);
}

template <class T, Data_item::item_type_t type>
int NV_number<T, type>::_to_string(char* buffer, int size) const {
    return Data_item_stringify<T>(&_value).to_string(buffer, size);
}

template <class T, Data_item::item_type_t type>
const char* NV_number<T, type>::_from_string(const char* text) {
    T value{};
    const char* end = Data_item_destringify<T>(&value).from_string(text);
    if (!end) return nullptr;
    // The adaptor takes one letter of "true"; a container reads on behind the word.
    if (std::is_same_v<T, bool> && strchr("FNTYfnty", *text)) end += strspn(end, letters);
    set(value);
    return end;
}

template <class T, Data_item::item_type_t type>
Data_item::Serial_ret NV_number<T, type>::serialise(CDS::Remote::Send_buffer& out, unsigned short& start_id) {
    if (serial_action_started(start_id)) CDS::Remote::append_value(out, _value);
    return serial_ok();
}

template <class T, Data_item::item_type_t type>
Data_item::Serial_ret NV_number<T, type>::deserialise(CDS::Remote::Receive_buffer& in, unsigned short& start_id) {
    if (!serial_action_started(start_id)) return serial_ok();
    T value;
    if (!CDS::Remote::pop_value(in, value)) return serial_fail();
    set(value);
    return serial_ok();
}

#define KAV_INSTANTIATE(T, name, NAME) template class NV_number<T, Data_item::item_##name>;
KAV_BASE_TYPES(KAV_INSTANTIATE)
#undef KAV_INSTANTIATE

} // namespace NV_store
