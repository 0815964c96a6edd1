// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Trouble_code_monitor.h"
#include <algorithm>

using namespace Trouble_code_messages;
using namespace Identification;

bool Trouble_code_monitor::Node::silent(const Atime& now) const { return !active.empty() && now - told > patience; }

const Trouble_code_monitor::Node* Trouble_code_monitor::node(unsigned address) const {
    return address < num_rows ? _rows[address].get() : nullptr;
}

unsigned Trouble_code_monitor::next(unsigned address) const {
    while (address < num_rows && !_rows[address]) ++address;
    return address;
}

Trouble_code_monitor::Node& Trouble_code_monitor::row(uint8_t address) {
    std::unique_ptr<Node>& r = _rows[address];
    if (!r) r = std::make_unique<Node>();
    return *r;
}

bool Trouble_code_monitor::take(const JIN_message& m, const Atime& now) {
    if (m.pgn == JIN::pgn_address_claimed && m.size >= JIN_name::num_bytes) claim(m, now);
    if (m.source > JIN::highest_unicast) return false;
    Node& n = row(m.source);
    n.heard = now;
    ++n.messages;
    switch (m.pgn) {
    case JIN::pgn_address_claimed:
        return true;
    case pgn_DM1:
        take_DM1(n, m, now);
        return true;
    case pgn_DM2: {
        n.has_DM2 = true;
        n.previous.clear();
        Trouble_code c;
        for (unsigned i = 0; i < Msg_DM(m).num_places(); ++i)
            if (Msg_DM(m).code(i, c)) n.previous.push_back(c);
        return true;
    }
    case pgn_software:
        n.software = read_software(m);
        return true;
    case pgn_product:
        n.product = read_fields(m);
        return true;
    case pgn_ECU:
        n.ECU = read_fields(m);
        return true;
    case pgn_certificate:
        n.has_certificate = n.certificate.read(m);
        return true;
    case pgn_functionalities:
        n.functionalities = read_functionalities(m);
        return true;
    case pgn_protocol:
        n.has_protocols = m.size > 0;
        n.protocols = m.get_uint8(0);
        return true;
    default:
        return false;
    }
}

/// A NAME has one address: what it said under another one goes with it. An address whose NAME is another now belongs to
/// another node.
void Trouble_code_monitor::claim(const JIN_message& m, const Atime& now) {
    const JIN_name name = JIN_name::from_bytes(m.data);
    if (!name.is_set()) return;
    std::unique_ptr<Node> moved;
    for (unsigned a = 0; a < num_rows; ++a)
        if (a != m.source && _rows[a] && _rows[a]->name == name) moved = std::move(_rows[a]);
    if (m.source > JIN::highest_unicast) return; // it lost its address
    std::unique_ptr<Node>& r = _rows[m.source];
    if (r && r->name.is_set() && r->name != name) r.reset();
    if (moved) r = std::move(moved);
    Node& n = row(m.source);
    n.name = name;
    n.heard = now;
}

void Trouble_code_monitor::take_DM1(Node& n, const JIN_message& m, const Atime& now) {
    const Msg_DM dm(m);
    if (!dm.valid()) return;
    const auto by_key = [](const Code& a, const Code& b) { return a.code.key() < b.code.key(); };
    _next.clear();
    Code c;
    for (unsigned i = 0; i < dm.num_places(); ++i) {
        if (!dm.code(i, c.code)) continue;
        c.first = c.last = now;
        _next.push_back(c);
    }
    // Of a code that comes twice the higher count stays. A stable sort would allocate.
    std::sort(_next.begin(), _next.end(), [](const Code& a, const Code& b) {
        return a.code.key() != b.code.key() ? a.code.key() < b.code.key() : a.code.count > b.code.count;
    });
    // Both are ordered: one pass finds what was there before, and leaves out what comes twice.
    auto before = n.active.begin();
    auto end = _next.begin();
    for (auto i = _next.begin(); i != _next.end(); ++i) {
        if (i != _next.begin() && end[-1].code.key() == i->code.key()) continue;
        while (before != n.active.end() && by_key(*before, *i)) ++before;
        if (before != n.active.end() && !by_key(*i, *before)) i->first = before->first;
        *end++ = *i;
    }
    _next.erase(end, _next.end());
    n.active.swap(_next);
    n.has_DM1 = true;
    n.told = now;
    n.lamps = dm.lamps();
    const auto packets = static_cast<int>(JIN::num_packets(m.size));
    n.patience = silence_ms + (packets > 1 ? packets * slowest_packet_ms : 0);
}
