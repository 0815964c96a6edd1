// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_number.h"
#include "glue/cds/CDS_remote.h"
#include "glue/cds/CDS_remote_values.h"
#include "glue/cds/Data_item_text.h"
#include <cctype>
#include <type_traits>

namespace NV_store {
namespace {

// The iterator operations that belong to a type.
bool push_value(NV_iterator& it, bool v) { return it.push_bool(v); }
bool push_value(NV_iterator& it, char v) { return it.push_char(v); }
bool push_value(NV_iterator& it, unsigned char v) { return it.push_uint8(v); }
bool push_value(NV_iterator& it, unsigned short v) { return it.push_uint16(v); }
bool push_value(NV_iterator& it, unsigned int v) { return it.push_uint32(v); }
bool push_value(NV_iterator& it, signed char v) { return it.push_int8(v); }
bool push_value(NV_iterator& it, short v) { return it.push_int16(v); }
bool push_value(NV_iterator& it, int v) { return it.push_int32(v); }
bool push_value(NV_iterator& it, float v) { return it.push_float(v); }
bool push_value(NV_iterator& it, double v) { return it.push_double(v); }
bool push_value(NV_iterator& it, unsigned long long v) { return it.push_uint64(v); }
bool push_value(NV_iterator& it, long long v) { return it.push_int64(v); }
bool pop_value(NV_iterator& it, bool& v) { return it.pop_bool(v); }
bool pop_value(NV_iterator& it, char& v) { return it.pop_char(v); }
bool pop_value(NV_iterator& it, unsigned char& v) { return it.pop_uint8(v); }
bool pop_value(NV_iterator& it, unsigned short& v) { return it.pop_uint16(v); }
bool pop_value(NV_iterator& it, unsigned int& v) { return it.pop_uint32(v); }
bool pop_value(NV_iterator& it, signed char& v) { return it.pop_int8(v); }
bool pop_value(NV_iterator& it, short& v) { return it.pop_int16(v); }
bool pop_value(NV_iterator& it, int& v) { return it.pop_int32(v); }
bool pop_value(NV_iterator& it, float& v) { return it.pop_float(v); }
bool pop_value(NV_iterator& it, double& v) { return it.pop_double(v); }
bool pop_value(NV_iterator& it, unsigned long long& v) { return it.pop_uint64(v); }
bool pop_value(NV_iterator& it, long long& v) { return it.pop_int64(v); }

} // namespace

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::_set(T v, notify_t how) {
    const bool changed = v != _value;
    _value = v;
    return notify_updated(changed, how);
}

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::set(const NV_item& other) {
    if (other.get_type_byte() != get_type_byte()) return false;
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
    if (!it->push_header(header(NV_iterator::marker_value)) || !push_value(*it, _value)) return false;
    saved();
    return true;
}

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::deserialise(NV_iterator* it) {
    NV_iterator::NV_iterator_header stored;
    if (!it->pop_header(stored)) return false;
    const NV_iterator::NV_iterator_header own = header(NV_iterator::marker_value);
    if (stored.id != own.id || stored.type_byte != own.type_byte || stored.marker != own.marker) return false;
    pop_value(*it, _value); // a cut value leaves the old one; the frame's CRC tells
    loaded();
    return true;
}

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::deserialise_unknown(NV_iterator* it) {
    NV_iterator::NV_iterator_header stored;
    T dropped;
    return it->pop_header(stored) && stored.marker == NV_iterator::marker_value && pop_value(*it, dropped);
}

template <class T, Data_item::item_type_t type>
bool NV_number<T, type>::deserialise_unknown_small_array(NV_iterator* it) {
    NV_iterator::NV_iterator_header stored;
    unsigned char count;
    if (!it->pop_header(stored) || stored.marker != NV_iterator::marker_value || !it->pop_uint8(count)) return false;
    T dropped;
    for (; count > 0; --count)
        if (!pop_value(*it, dropped)) return false;
    return true;
}

template <class Number>
static bool skip(NV_iterator* it, bool array) {
    return array ? Number::deserialise_unknown_small_array(it) : Number::deserialise_unknown(it);
}

bool skip_unknown_value(NV_iterator* it, Data_item::class_type_t shape, Data_item::item_type_t type) {
    const bool array = shape == Data_item::class_array;
    if (!array && shape != Data_item::class_value) return false;
    switch (type) {
    case Data_item::item_bool:
        return skip<NV_bool>(it, array);
    case Data_item::item_char:
        return skip<NV_char>(it, array);
    case Data_item::item_uint8:
        return skip<NV_uint8>(it, array);
    case Data_item::item_uint16:
        return skip<NV_uint16>(it, array);
    case Data_item::item_uint32:
        return skip<NV_uint32>(it, array);
    case Data_item::item_int8:
        return skip<NV_int8>(it, array);
    case Data_item::item_int16:
        return skip<NV_int16>(it, array);
    case Data_item::item_int32:
        return skip<NV_int32>(it, array);
    case Data_item::item_float:
        return skip<NV_float>(it, array);
    case Data_item::item_double:
        return skip<NV_double>(it, array);
    // Arrays of 64-bit integers are in no image.
    case Data_item::item_uint64:
        return !array && skip<NV_uint64>(it, false);
    case Data_item::item_int64:
        return !array && skip<NV_int64>(it, false);
    default:
        return false;
    }
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
    if constexpr (std::is_same_v<T, bool>) {
        // The adaptor takes one letter of "true"; a container reads on behind the word.
        while (isalpha(static_cast<unsigned char>(*end))) ++end;
    }
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

template class NV_number<bool, Data_item::item_bool>;
template class NV_number<char, Data_item::item_char>;
template class NV_number<unsigned char, Data_item::item_uint8>;
template class NV_number<unsigned short, Data_item::item_uint16>;
template class NV_number<unsigned int, Data_item::item_uint32>;
template class NV_number<signed char, Data_item::item_int8>;
template class NV_number<short, Data_item::item_int16>;
template class NV_number<int, Data_item::item_int32>;
template class NV_number<float, Data_item::item_float>;
template class NV_number<double, Data_item::item_double>;
template class NV_number<unsigned long long, Data_item::item_uint64>;
template class NV_number<long long, Data_item::item_int64>;

} // namespace NV_store
