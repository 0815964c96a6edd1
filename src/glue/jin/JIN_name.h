// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <cstdint>

/// The NAME of a node of the bus: 64 bits that say what the node is, and who wins when two want one address. A value.
///
///     bit 63  arbitrary address     62..60  industry group          59..56  device class instance
///     55..49  device class          48      reserved, 0             47..40  function
///     39..35  function instance     34..32  ECU instance            31..21  manufacturer code
///     20..0   identity number
///
/// On the bus it is 8 bytes, least significant first. The smaller number wins. NAMEs of one bus differ; a maker's
/// identity number takes care of that.
class KAV_API JIN_name {
public:
    static constexpr uint32_t num_bytes = 8;

    constexpr JIN_name() = default; ///< 0: nobody
    constexpr explicit JIN_name(uint64_t v) : value(v) {}
    /// From its 8 bytes on the bus.
    static JIN_name from_bytes(const unsigned char* bytes);
    void to_bytes(unsigned char* bytes) const;

    bool arbitrary_address() const { return get(63, 1) != 0; } ///< it may take another address than the one it prefers
    unsigned industry_group() const { return get(60, 3); }     ///< 0 global, 2 agriculture and forestry
    unsigned device_class_instance() const { return get(56, 4); }
    unsigned device_class() const { return get(49, 7); }
    unsigned function() const { return get(40, 8); }
    unsigned function_instance() const { return get(35, 5); }
    unsigned ecu_instance() const { return get(32, 3); }
    unsigned manufacturer_code() const { return get(21, 11); }
    uint32_t identity_number() const { return get(0, 21); }

    // Bits of the value that do not fit are cut off. Each returns *this, so that a NAME can be written as one chain.
    JIN_name& set_arbitrary_address(bool v) { return set(63, 1, v); }
    JIN_name& set_industry_group(unsigned v) { return set(60, 3, v); }
    JIN_name& set_device_class_instance(unsigned v) { return set(56, 4, v); }
    JIN_name& set_device_class(unsigned v) { return set(49, 7, v); }
    JIN_name& set_function(unsigned v) { return set(40, 8, v); }
    JIN_name& set_function_instance(unsigned v) { return set(35, 5, v); }
    JIN_name& set_ecu_instance(unsigned v) { return set(32, 3, v); }
    JIN_name& set_manufacturer_code(unsigned v) { return set(21, 11, v); }
    JIN_name& set_identity_number(uint32_t v) { return set(0, 21, v); }

    bool is_set() const { return value != 0; }
    /// This one wins an address against the other.
    bool wins_against(JIN_name o) const { return value < o.value; }
    bool operator==(JIN_name o) const { return value == o.value; }
    bool operator!=(JIN_name o) const { return value != o.value; }

    uint64_t value = 0;

private:
    uint32_t get(unsigned bit, unsigned n) const { return static_cast<uint32_t>(value >> bit & ((1u << n) - 1)); }
    JIN_name& set(unsigned bit, unsigned n, uint64_t v);
};
