// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_item.h"
#include "glue/cds/Base_types.h"
#include "util/api.h"

namespace NV_store {

/// A setting of one base type. `type` is T's item type; use the names below the class.
template <class T, Data_item::item_type_t type>
class KAV_API NV_number : public NV_item {
public:
    NV_number(NV_container* container, unsigned short settings_id, const char* text, T default_value = T())
        : NV_item(container, settings_id, text), _value(default_value), _default(default_value) {}

    T get() const { return _value; } ///< 64-bit values on the board: under lock() when another thread may set them
    /// True when everybody concerned was notified, or the value is the same.
    bool set(T v) { return _set(v, notify_all); }
    bool set(const NV_item& other); ///< take over another's value; false when its class or type differs
    /// With notify_none the value alone is stored: nothing counts as changed or loaded, and nobody is notified.
    bool _set(T v, notify_t how);
    T get_default() const { return _default; }

    item_type_t get_type() const override { return type; }
    item_type_t get_number_type() const final { return type; }
    void _print(Debug::Dumper& dumper) const override;
    Serial_ret serialise(CDS::Remote::Send_buffer& out, unsigned short& start_id) override;
    Serial_ret deserialise(CDS::Remote::Receive_buffer& in, unsigned short& start_id) override;
    bool serialise(NV_iterator* it) override;
    /// Read the value straight in, without a notification. A record of another item is consumed all the same.
    bool deserialise(NV_iterator* it) override;
    int _to_string(char* buffer, int size) const override;
    const char* _from_string(const char* text) override;
    bool set_default(bool all) override;

    /// Read past a value, or a counted array of them, that no item wants.
    static bool deserialise_unknown(NV_iterator* it);
    static bool deserialise_unknown_small_array(NV_iterator* it);

private:
    T _value;
    const T _default;
};

/// NV_bool, NV_char, NV_uint8, NV_uint16, NV_uint32, NV_int8, NV_int16, NV_int32, NV_float, NV_double, NV_uint64 and
/// NV_int64.
#define KAV_SETTING(T, name, NAME)                                                                                     \
    using NV_##name = NV_number<T, Data_item::item_##name>;                                                            \
    extern template class NV_number<T, Data_item::item_##name>;
KAV_BASE_TYPES(KAV_SETTING)
#undef KAV_SETTING

} // namespace NV_store
