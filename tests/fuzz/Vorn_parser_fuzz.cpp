// SPDX-License-Identifier: MIT
// The stream parser beside its slow model. Six bytes say how, the others are what the line brings.
#include "fuzz/checks.h"
#include "vorn/parser_model.h"

void fuzz(Input in) {
    constexpr int rooms[] = {8192, 4103, 4101, 64, 10, 9, 8, 1};
    const uint8_t manner = in.next(), portion = in.next(), room = in.next(), options = in.next();
    Session session;
    session.meddler = in.little_endian(2);
    session.bytes = in.rest();
    session.manner = static_cast<Fed_stream::Manner>(manner % 3);
    // The model starts over with each portion: tiny ones are for short inputs.
    session.portion = std::max<size_t>(portion == 0 ? SIZE_MAX : portion, session.bytes.size() / 64);
    session.buf_size = rooms[room % 8];
    session.expect_line_end = !(options & 1);
    session.keep_on_reject = options & 2;
    session.checker = (options >> 2) % 6;
    const std::string found = difference(session);
    require(found.empty(), found.c_str());
}
