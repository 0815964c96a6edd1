// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Diagnostics_messages.h"

void Diagnostics_messages::build_SP(unsigned char* bytes, unsigned char src, unsigned short a, unsigned short b,
                                    unsigned int time, unsigned short ms) {
    Vorn_message frame(bytes, Msg_SP::size_total);
    frame.setup(id_SP, Msg_SP::size_total);
    frame.set_uint8(5, src);
    frame.set_uint16_le(6, a);
    frame.set_uint16_le(8, b);
    frame.set_uint32_le(10, time);
    frame.set_uint8(14, static_cast<unsigned char>(ms / 4));
    frame.set_checksum();
}
