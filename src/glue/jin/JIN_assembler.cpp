// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_assembler.h"
#include <bitset>
#include <cstring>
#include <utility>

namespace {

enum Control : uint8_t { request_to_send = 16, abort_transfer = 255, announce_to_all = 32 };
constexpr unsigned packet_bytes = 7;

} // namespace

struct JIN_assembler::Session {
    bool open = false;
    uint8_t source, destination, priority;
    uint32_t pgn;
    unsigned length;
    int64_t last;
    std::bitset<256> missing; ///< packets 1 to 255
    unsigned char bytes[JIN::max_length];
};

JIN_assembler::JIN_assembler(Sink sink) : _sink(std::move(sink)), _sessions(new Session[max_sessions]()) {}
JIN_assembler::~JIN_assembler() { delete[] _sessions; }

//     bits 28-26 priority, 25-24 page, 23-16 format, 15-8 destination or low byte of the PGN, 7-0 source
void JIN_assembler::frame(uint32_t identifier, const unsigned char* bytes, unsigned n, int64_t now) {
    if (n > 8) return;
    unsigned char copy[8];
    memcpy(copy, bytes, n);
    JIN_message m(identifier >> 8 & JIN::pgn_max, copy, n);
    m.source = static_cast<uint8_t>(identifier);
    m.priority = static_cast<uint8_t>(identifier >> 26 & 7);
    if (JIN::is_addressable(m.pgn)) {
        m.destination = static_cast<uint8_t>(m.pgn);
        m.pgn &= ~uint32_t{0xFF};
    }
    if (m.pgn == JIN::pgn_transport)
        control(m, now);
    else if (m.pgn == JIN::pgn_transport_data)
        data(m, now);
    else
        _sink(m);
}

JIN_assembler::Session* JIN_assembler::find(uint8_t source, uint8_t destination) {
    for (unsigned i = 0; i < max_sessions; ++i) {
        Session& s = _sessions[i];
        if (s.open && s.source == source && s.destination == destination) return &s;
    }
    return nullptr;
}

void JIN_assembler::close(Session& s, bool whole) {
    s.open = false;
    if (!whole) ++_incomplete;
}

void JIN_assembler::control(const JIN_message& m, int64_t now) {
    if (m.size < 8) return;
    const uint8_t kind = m.get_uint8(0);
    const bool to_all = m.destination == JIN::global;
    if ((kind == announce_to_all && to_all) || (kind == request_to_send && !to_all)) return begin(m, now);
    if (kind != abort_transfer) return;
    // Either end may give up.
    for (Session* s : {find(m.source, m.destination), find(m.destination, m.source)})
        if (s && s->pgn == m.get_uint24_le(5)) close(*s, false);
}

void JIN_assembler::begin(const JIN_message& m, int64_t now) {
    if (Session* other = find(m.source, m.destination)) close(*other, false);
    const unsigned length = m.get_uint16_le(1), packets = m.get_uint8(3);
    if (length <= 8 || length > JIN::max_length || packets != JIN::num_packets(length)) return;
    Session* place = &_sessions[0];
    for (unsigned i = 0; i < max_sessions && place->open; ++i)
        if (!_sessions[i].open || _sessions[i].last < place->last) place = &_sessions[i];
    if (place->open) close(*place, false);
    place->open = true;
    place->source = m.source;
    place->destination = m.destination;
    place->priority = m.priority;
    place->pgn = m.get_uint24_le(5);
    place->length = length;
    place->last = now;
    place->missing.reset();
    for (unsigned i = 1; i <= packets; ++i) place->missing.set(i);
}

/// Packets of a transfer between two may come again, in any order.
void JIN_assembler::data(const JIN_message& m, int64_t now) {
    Session* const s = find(m.source, m.destination);
    if (!s || m.size < 2) return;
    if (now - s->last > patience_ms || now < s->last) return close(*s, false);
    s->last = now;
    const unsigned at = (m.get_uint8(0) - 1u) * packet_bytes;
    if (m.get_uint8(0) == 0 || at >= s->length) return;
    const unsigned n = s->length - at < packet_bytes ? s->length - at : packet_bytes;
    if (!m.get_bytes(1, s->bytes + at, n)) return;
    s->missing.reset(m.get_uint8(0));
    if (s->missing.any()) return;
    close(*s, true);
    JIN_message whole(s->pgn, s->bytes, s->length, s->destination, s->priority);
    whole.source = s->source;
    _sink(whole);
}
