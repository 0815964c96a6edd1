// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_item.h"
#include "glue/cds/Value_type.h"
#include "util/api.h"
#include "util/bytes.h"

namespace NV_store {

/// A setting of any base type, get_number_type(). Its value is passed as Util::to_bits() makes it.
class KAV_API NV_number_base : public NV_item {
public:
    virtual uint64_t get_bits() const = 0;
    /// NV_number::_set(); what is above the type is cut off.
    virtual bool set_bits(uint64_t bits, notify_t how) = 0;
    /// Take over another's value; false when its class or type differs, or when not everybody was notified.
    bool set(const NV_item& other);

    item_type_t get_number_type() const override = 0;
    void _print(Debug::Dumper& dumper) const override;
    Serial_ret serialise(CDS::Remote::Send_buffer& out, unsigned short& start_id) override;
    Serial_ret deserialise(CDS::Remote::Receive_buffer& in, unsigned short& start_id) override;
    int _to_string(char* buffer, int size) const override;
    const char* _from_string(const char* text) override;

protected:
    using NV_item::NV_item;
    /// The record, with a value of `width` [bytes]. A cut one leaves `bits`: the frame's CRC tells.
    bool push_record(NV_iterator& it, uint64_t bits, int width);
    bool pop_record(NV_iterator& it, uint64_t& bits, int width);
};

/// A setting of one base type. `type` is T's item type; use the names below the class.
template <class T, Data_item::item_type_t type>
class KAV_API NV_number : public NV_number_base {
public:
    NV_number(NV_container* container, unsigned short settings_id, const char* text, T default_value = T())
        : NV_number_base(container, settings_id, text), _value(default_value), _default(default_value) {}

    T get() const { return _value; } ///< 64-bit values on the board: under lock() when another thread may set them
    /// True when everybody concerned was notified, or the value is the same.
    bool set(T v) { return _set(v, notify_all); }
    using NV_number_base::set;
    /// With notify_none the value alone is stored: nothing counts as changed or loaded, and nobody is notified.
    bool _set(T v, notify_t how) {
        const bool changed = v != _value;
        _value = v;
        return !changed || how == notify_none || notify_updated(true, how);
    }
    T get_default() const { return _default; }

    item_type_t get_type() const override { return type; }
    item_type_t get_number_type() const final { return type; }
    uint64_t get_bits() const final { return Util::to_bits(_value); }
    bool set_bits(uint64_t bits, notify_t how) final { return _set(Util::from_bits<T>(bits), how); }
    using NV_number_base::serialise, NV_number_base::deserialise;
    bool serialise(NV_iterator* it) override { return push_record(*it, get_bits(), sizeof(T)); }
    /// Read the value straight in, without a notification. A record of another item is consumed all the same.
    bool deserialise(NV_iterator* it) override {
        uint64_t bits = get_bits();
        const bool own = pop_record(*it, bits, sizeof(T));
        _value = Util::from_bits<T>(bits);
        return own;
    }
    bool set_default(bool) override {
        _set(_default, notify_all);
        return true;
    }

    /// Read past a value, or a counted array of them, that no item wants.
    static bool deserialise_unknown(NV_iterator* it) { return it->skip_value(sizeof(T), false); }
    static bool deserialise_unknown_small_array(NV_iterator* it) { return it->skip_value(sizeof(T), true); }

private:
    T _value;
    const T _default;
};

/// NV_bool, NV_char, NV_uint8, NV_uint16, NV_uint32, NV_int8, NV_int16, NV_int32, NV_float, NV_double, NV_uint64 and
/// NV_int64.
#define KAV_SETTING(T, name, NAME) using NV_##name = NV_number<T, Data_item::item_##name>;
KAV_BASE_TYPES(KAV_SETTING)
#undef KAV_SETTING

} // namespace NV_store
