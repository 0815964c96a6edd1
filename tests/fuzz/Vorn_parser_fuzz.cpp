// SPDX-License-Identifier: MIT
// The stream parser beside its slow model. Six bytes say how, the others are what the line brings.
#include "fuzz/checks.h"
#include "vorn/parser_model.h"
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    be_quiet(); // refusals would flood the output
    if (size < 6) return 0;
    constexpr int rooms[] = {8192, 4103, 4101, 64, 10, 9, 8, 1};
    Session session;
    session.bytes.assign(reinterpret_cast<const char*>(data) + 6, size - 6);
    session.manner = static_cast<Fed_stream::Manner>(data[0] % 3);
    // The model starts over with each portion: tiny ones are for short inputs.
    session.portion = std::max<size_t>(data[1] == 0 ? SIZE_MAX : data[1], size / 64);
    session.buf_size = rooms[data[2] % 8];
    session.expect_line_end = !(data[3] & 1);
    session.keep_on_reject = data[3] & 2;
    session.with_checker = data[3] & 4;
    session.meddler = data[4] + 256u * data[5];
    require(difference(session).c_str());
    return 0;
}
