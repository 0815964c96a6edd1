// SPDX-License-Identifier: MIT
#include "glue/jin/JIN_message.h"

JIN_message::~JIN_message() = default;

bool JIN_message::is_sendable() const {
    if (pgn > JIN::pgn_max || size > JIN::max_length || priority > 7 || destination == JIN::no_address) return false;
    if (JIN::is_addressable(pgn) && (pgn & 0xFF) != 0) return false;
    return pgn != JIN::pgn_transport && pgn != JIN::pgn_transport_data && pgn != JIN::pgn_address_claimed;
}

bool JIN_message::get_requested_pgn(uint32_t& number) const {
    if (pgn != JIN::pgn_request || size < 3 || size > 8) return false;
    number = get_uint24_le(0);
    return true;
}
