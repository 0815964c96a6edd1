// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Binary_message.h"
#include "util/api.h"
#include <cstdint>

/// Numbers of the bus that its layers share.
namespace JIN {

constexpr uint8_t no_address = 254; ///< source of a node that has none
constexpr uint8_t global = 255;     ///< destination: everybody
constexpr uint8_t highest_unicast = 253;
constexpr uint8_t default_priority = 6; ///< 0 goes first, 7 last

constexpr uint32_t pgn_request = 59904;           ///< 0xEA00: asks for the PGN in its 3 bytes
constexpr uint32_t pgn_acknowledgement = 59392;   ///< 0xE800
constexpr uint32_t pgn_address_claimed = 60928;   ///< 0xEE00: the sender's NAME
constexpr uint32_t pgn_commanded_address = 65240; ///< 0xFED8: a NAME, and the address that it shall take
constexpr uint32_t pgn_transport_data = 60160;    ///< 0xEB00: the stack's own
constexpr uint32_t pgn_transport = 60416;         ///< 0xEC00: the stack's own
constexpr uint32_t pgn_max = 0x3FFFF;

constexpr uint32_t max_length = 1785; ///< [bytes] of a message: 255 packets of 7

/// The PGN has a destination of its own in each frame; else a message of 8 bytes or less reaches everybody.
constexpr bool is_addressable(uint32_t pgn) { return (pgn >> 8 & 0xFF) < 240; }
/// Packets that a message of `length` [bytes] takes: 1 up to 8 bytes.
constexpr uint32_t num_packets(uint32_t length) { return length <= 8 ? 1 : (length + 6) / 7; }

} // namespace JIN

/// A message of the bus, whole however many frames it took: a view of its 0..1785 bytes with what its frames say about
/// it. The fields below travel with a copy, the bytes stay the owner's.
class KAV_API JIN_message : public Binary_message {
public:
    JIN_message(uint32_t number, void* bytes, uint32_t n, uint8_t to = JIN::global,
                uint8_t prio = JIN::default_priority)
        : Binary_message(bytes, n), pgn(number), destination(to), priority(prio) {}
    JIN_message(const JIN_message&) = default;
    JIN_message& operator=(const JIN_message&) = default;
    ~JIN_message() override;

    /// It can travel: the PGN is one that applications send (18 bits, the low 8 of an addressable one 0, not a
    /// transport frame, not an address claim), not more than 1785 bytes, destination 0..253 or 255, priority 0..7.
    bool is_sendable() const;
    /// The PGN that a request asks for. False unless this is a request of 3 bytes; some senders fill up to 8, which
    /// counts too.
    bool get_requested_pgn(uint32_t& number) const;

    uint32_t pgn;
    uint8_t source = JIN::no_address; ///< of what was received; senders need not set it
    uint8_t destination;
    uint8_t priority;
};
