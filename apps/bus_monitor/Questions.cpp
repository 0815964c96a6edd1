// SPDX-License-Identifier: MIT
#include "Questions.h"

using namespace Identification;

void Questions::ask_new_ones(const Trouble_code_monitor& monitor) {
    uint8_t own = JIN::no_address;
    if (!_stack.address(own)) return;
    for (unsigned a = 0; (a = monitor.next(a)) < JIN::no_address; ++a) {
        if (a == own || _asked[a]) continue;
        _asked.set(a);
        for (const uint32_t pgn : {uint32_t{pgn_product}, uint32_t{pgn_software}, uint32_t{pgn_ECU}})
            ask(pgn, static_cast<uint8_t>(a));
    }
}

bool Questions::send_next() {
    if (_waiting.empty()) return false;
    const Question q = _waiting.front();
    unsigned char bytes[3];
    JIN_message m(JIN::pgn_request, bytes, sizeof bytes, q.destination);
    Trouble_code_messages::build_request(m, q.pgn);
    if (_stack.send(m) == JIN_stack::busy) return false;
    _waiting.pop_front();
    return true;
}
