// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Trouble_code_table.h"
#include "glue/jin/JIN_message.h"
#include "util/api.h"

/// The messages of SAE J1939-73 and -21 that carry trouble codes and what is done with them, as views and builders.
/// Builders write into the bytes of the message they are given and set its size. A message that has no room for
/// the least of its kind becomes empty.
namespace Trouble_code_messages {

enum Pgn : uint32_t {
    pgn_DM13 = 0xDF00, ///< 57088: stop or start broadcasting
    pgn_DM22 = 0xC300, ///< 49920: clear one code
    pgn_DM1 = 0xFECA,  ///< 65226: active codes
    pgn_DM2 = 0xFECB,  ///< 65227: previously active codes
    pgn_DM3 = 0xFECC,  ///< 65228: clear the previously active ones
    pgn_DM11 = 0xFED3  ///< 65235: clear the active ones
};

constexpr unsigned single_frame = 8;                ///< [bytes] a message up to this goes in one frame
constexpr unsigned max_codes = 250;                 ///< in a message of ours
constexpr unsigned max_received_codes = 445;        ///< in a message of anybody
constexpr unsigned longest_DM1 = 2 + 4 * max_codes; ///< [bytes] of ours

/// How the lamp bytes are used, and whether a DM1 is sent while there are no codes.
enum class Mode : uint8_t {
    iso,  ///< ISO 11783: lamp bytes FF FF, silent without codes
    j1939 ///< SAE J1939: lamps, each second
};

/// The two lamp bytes. Two bits for each lamp: in the first byte 00 off, 01 on, 10 error, 11 not available; in the
/// second, for a lamp that is on, 00 flashes slowly, 01 fast, 11 does not flash.
///
///     bits 8-7 malfunction   6-5 red stop   4-3 amber warning   2-1 protect
class KAV_API Lamps {
public:
    Lamps() = default;
    Lamps(uint8_t s, uint8_t f) : states(s), flashes(f) {}
    static Lamps not_used() { return {0xFF, 0xFF}; }

    /// Light one up; of two that differ the more urgent stays: fast, slow, solid.
    void add(Lamp lamp);
    bool on(Lamp::Kind kind) const { return kind != Lamp::none && (states >> shift(kind) & 3) == 1; }
    Lamp::Flash flash(Lamp::Kind kind) const;

    uint8_t states = 0x00;  ///< all off
    uint8_t flashes = 0xFF; ///< none flashes

private:
    static unsigned shift(Lamp::Kind kind) { return 2 * (unsigned{kind} - 1); }
};

/// DM1 and DM2: lamp bytes, then four bytes a code, filled with FF to 8 bytes.
class KAV_API Msg_DM : public Binary_message {
public:
    explicit Msg_DM(const Binary_message& m) : Binary_message(m) {}

    bool valid() const { return size >= 2; }
    Lamps lamps() const { return valid() ? Lamps(data[0], data[1]) : Lamps::not_used(); }
    /// Places for codes; in some of them none may stand: see code().
    unsigned num_places() const { return valid() ? (size - 2) / Trouble_code::size : 0; }
    /// The code at a place, from 0. False when none stands there: SPN 0 or 524287, or out of range.
    bool code(unsigned place, Trouble_code& c) const;
};

/// The codes of one state, the last 250 that changed, the latest first. Without codes the one that says so, of 8 bytes.
/// As many as the message has room for. O(codes of that state), no allocation.
KAV_API void build_DM(Binary_message& m, const Trouble_code_table& codes, Trouble_code_table::State state, Mode mode);

/// Request: the PGN in three bytes, little-endian; JIN_message::get_requested_pgn() reads it.
KAV_API void build_request(Binary_message& m, uint32_t pgn);

/// Acknowledgment: control, FF FF FF, the address of who is meant, the PGN little-endian. Sent to all.
class KAV_API Msg_acknowledgment : public Binary_message {
public:
    enum Control : uint8_t { ack = 0, nack = 1, denied = 2, busy = 3 };
    explicit Msg_acknowledgment(const Binary_message& m) : Binary_message(m) {}
    bool valid() const { return size >= 8; }
    uint8_t control() const { return get_uint8(0); }
    uint8_t address() const { return get_uint8(4); }
    uint32_t pgn() const { return get_uint24_le(5); }
};
KAV_API void build_acknowledgment(Binary_message& m, Msg_acknowledgment::Control control, uint8_t address,
                                  uint32_t pgn);

/// DM22: control, reason, FF FF FF, the first three bytes of a code.
class KAV_API Msg_DM22 : public Binary_message {
public:
    /// The answer to a request is its control plus 1 (done) or 2 (refused).
    enum Control : uint8_t { clear_previous = 0x01, clear_active = 0x11, done = 1, refused = 2 };
    enum Reason : uint8_t { general, access_denied, unknown_code, not_previously_active, not_active, none = 0xFF };

    explicit Msg_DM22(const Binary_message& m) : Binary_message(m) {}
    bool valid() const { return size >= 8; }
    uint8_t control() const { return get_uint8(0); }
    uint8_t reason() const { return get_uint8(1); }
    bool is_request() const { return control() == clear_previous || control() == clear_active; }
    Trouble_code code() const; ///< with a count of 0
};
KAV_API void build_DM22(Binary_message& m, uint8_t control, Msg_DM22::Reason reason, const Trouble_code& code);

/// DM13: who shall stop or start broadcasting.
///
///     byte 1  bits 8-7 the link it came by, then three networks by name, 2 bits each
///     bytes 2, 3  further networks, 2 bits each
///     byte 4  bits 8-5 hold signal, bits 4-1 suspend signal
///     bytes 5, 6  duration [s], FFFF unknown
///
/// The networks' two bits: 0 stop, 1 start, 3 leave as it is. The layout of bytes 4 to 6 is known from one source only.
class KAV_API Msg_DM13 : public Binary_message {
public:
    enum Action : uint8_t { stop = 0, start = 1, leave = 3 };
    static constexpr unsigned hold_not_available = 15;
    static constexpr unsigned max_duration = 64255; ///< [s] above: not a duration

    explicit Msg_DM13(const Binary_message& m) : Binary_message(m) {}
    bool valid() const { return size >= 6; }
    Action this_link() const { return action(data[0] >> 6 & 3); }
    unsigned hold_signal() const { return data[3] >> 4; }
    unsigned duration() const; ///< [s], 0 when it is not known
    /// Two bits that are neither stop nor start leave things as they are.
    static Action action(unsigned bits) { return bits < 2 ? static_cast<Action>(bits) : leave; }
};
/// Everything but the link that it is sent on, the hold signal and the duration ([s], 0: unknown) is left as it is.
KAV_API void build_DM13(Binary_message& m, Msg_DM13::Action this_link, bool hold, unsigned duration);

} // namespace Trouble_code_messages
