// SPDX-License-Identifier: MIT
#pragma once
#include <cstdint>

/// A trouble code as it travels in four bytes: what is wrong (SPN, suspect parameter number), in which way (FMI,
/// failure mode identifier), and how often it came.
///
///     byte 0  SPN bits 0 to 7      byte 2  bits 7-5 SPN bits 16 to 18, bits 4-0 FMI
///     byte 1  SPN bits 8 to 15     byte 3  bit 7 conversion method, bits 6-0 count
///
/// The layout is agreed upon by an engine maker's manual and two open implementations. Only one generator's manual has
/// the conversion method the other way round.
struct Trouble_code {
    static constexpr unsigned size = 4; ///< [bytes] on the bus
    static constexpr uint32_t spn_none = 0;
    static constexpr uint32_t spn_not_available = 0x7FFFF;
    static constexpr unsigned max_fmi = 31;
    static constexpr uint8_t max_count = 126; ///< counting stops here
    static constexpr uint8_t count_not_available = 127;

    /// Whether it names a fault: SPN 1 to 524286, FMI 0 to 31.
    static constexpr bool valid(uint32_t spn, unsigned fmi) {
        return spn != spn_none && spn < spn_not_available && fmi <= max_fmi;
    }
    constexpr bool valid() const { return valid(spn, fmi); }

    /// What tells codes apart, in the order of SPN, then FMI: 24 bits.
    static constexpr uint32_t key(uint32_t spn, unsigned fmi) { return spn << 5 | fmi; }
    constexpr uint32_t key() const { return key(spn, fmi); }
    static constexpr Trouble_code from_key(uint32_t key, uint8_t count) {
        return {key >> 5, static_cast<uint8_t>(key & 31), count, false};
    }

    constexpr uint8_t third_byte() const { return static_cast<uint8_t>((spn >> 16 & 7) << 5 | (fmi & 31)); }
    void write(unsigned char* bytes) const {
        bytes[0] = static_cast<unsigned char>(spn);
        bytes[1] = static_cast<unsigned char>(spn >> 8);
        bytes[2] = third_byte();
        bytes[3] = static_cast<unsigned char>((old_method ? 0x80 : 0) | (count & 0x7F));
    }
    static Trouble_code read(const unsigned char* bytes) {
        return {static_cast<uint32_t>(bytes[0] | bytes[1] << 8 | (bytes[2] >> 5) << 16),
                static_cast<uint8_t>(bytes[2] & 31), static_cast<uint8_t>(bytes[3] & 0x7F), (bytes[3] & 0x80) != 0};
    }

    uint32_t spn = spn_none; ///< 19 bits
    uint8_t fmi = 0;         ///< 5 bits
    uint8_t count = 0;       ///< 0 to 126; 127: not available
    bool old_method = false; ///< the sender's layout is an old one, of which there were three: the SPN may be wrong
};

/// What lights up for a code. An attribute of it, not a part of what tells codes apart.
struct Lamp {
    enum Kind : uint8_t { none, protect, amber_warning, red_stop, malfunction };
    enum Flash : uint8_t { solid, slow, fast };

    Kind kind = none;
    Flash flash = solid;
};
