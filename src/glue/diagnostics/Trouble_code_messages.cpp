// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Trouble_code_messages.h"
#include <algorithm>
#include <cstring>

namespace Trouble_code_messages {
namespace {

/// `n` bytes of FF to write into; false when there is no room for them.
bool begin(Binary_message& m, unsigned n) {
    m.size = m.size < n ? 0 : n;
    memset(m.data, 0xFF, m.size);
    return m.size != 0;
}

/// How urgent a pair of flash bits is.
unsigned urgency(unsigned bits) { return bits == 1 ? 2 : bits == 0 ? 1 : 0; }

} // namespace

void Lamps::add(Lamp lamp) {
    if (lamp.kind == Lamp::none) return;
    const unsigned at = shift(lamp.kind);
    const unsigned bits = lamp.flash == Lamp::fast ? 1 : lamp.flash == Lamp::slow ? 0 : 3;
    if (on(lamp.kind) && urgency(flashes >> at & 3) >= urgency(bits)) return;
    states = static_cast<uint8_t>((states & ~(3u << at)) | 1u << at);
    flashes = static_cast<uint8_t>((flashes & ~(3u << at)) | bits << at);
}

Lamp::Flash Lamps::flash(Lamp::Kind kind) const {
    if (!on(kind)) return Lamp::solid;
    constexpr Lamp::Flash by_urgency[] = {Lamp::solid, Lamp::slow, Lamp::fast};
    return by_urgency[urgency(flashes >> shift(kind) & 3)];
}

bool Msg_DM::code(unsigned place, Trouble_code& c) const {
    if (place >= num_places()) return false;
    c = Trouble_code::read(data + 2 + place * Trouble_code::size);
    return c.valid();
}

void build_DM(Binary_message& m, const Trouble_code_table& codes, Trouble_code_table::State state, Mode mode) {
    if (m.size < single_frame) {
        m.size = 0;
        return;
    }
    const unsigned n = std::min({codes.count(state), (m.size - 2) / Trouble_code::size, max_codes});
    Lamps lamps = mode == Mode::iso ? Lamps::not_used() : Lamps();
    unsigned char* place = m.data + 2;
    unsigned written = 0;
    for (const auto* e = codes.newest(state); e; e = e->older()) {
        // A lamp lights up for an active code, and for one that finds no room as well.
        if (mode == Mode::j1939 && state == Trouble_code_table::active) lamps.add(e->lamp);
        if (written < n) {
            e->code().write(place);
            place += Trouble_code::size;
            ++written;
        } else if (mode == Mode::iso) {
            break;
        }
    }
    m.data[0] = lamps.states;
    m.data[1] = lamps.flashes;
    m.size = std::max(2 + n * Trouble_code::size, single_frame);
    if (n > 1) return;
    if (n == 0) memset(m.data + 2, 0, Trouble_code::size);
    memset(m.data + 6, 0xFF, 2);
}

void build_request(Binary_message& m, uint32_t pgn) {
    if (begin(m, 3)) m.set_uint24_le(0, pgn);
}

void build_acknowledgment(Binary_message& m, Msg_acknowledgment::Control control, uint8_t address, uint32_t pgn) {
    if (!begin(m, 8)) return;
    m.set_uint8(0, control);
    m.set_uint8(4, address);
    m.set_uint24_le(5, pgn);
}

Trouble_code Msg_DM22::code() const {
    if (!valid()) return {};
    const unsigned char bytes[Trouble_code::size] = {data[5], data[6], data[7], 0};
    return Trouble_code::read(bytes);
}

void build_DM22(Binary_message& m, uint8_t control, Msg_DM22::Reason reason, const Trouble_code& code) {
    if (!begin(m, 8)) return;
    m.set_uint8(0, control);
    m.set_uint8(1, reason);
    unsigned char bytes[Trouble_code::size];
    code.write(bytes);
    memcpy(m.data + 5, bytes, 3);
}

unsigned Msg_DM13::duration() const {
    const unsigned seconds = get_uint16_le(4);
    return seconds <= max_duration ? seconds : 0;
}

void build_DM13(Binary_message& m, Msg_DM13::Action this_link, bool hold, unsigned duration) {
    if (!begin(m, 8)) return;
    m.set_uint8(0, static_cast<uint8_t>(this_link << 6 | 0x3F));
    if (hold) m.set_uint8(3, 0x0F); // hold signal 0: all devices
    if (duration > 0 && duration <= Msg_DM13::max_duration) m.set_uint16_le(4, static_cast<uint16_t>(duration));
}

} // namespace Trouble_code_messages
