// SPDX-License-Identifier: MIT
// What a packet goes through behind the parser: the views, the printer, the fields of a text, the error numbers, the
// salvage. The first byte says how much room the printer has.
#include "fuzz/checks.h"
#include "glue/vorn/Ascii_message.h"
#include "glue/vorn/Vorn_error_decoder.h"
#include "glue/vorn/Vorn_printer.h"
#include "glue/vorn/Vorn_response.h"
#include "glue/vorn/Vorn_salvage.h"
#include <algorithm>

namespace {

void print(const Vorn_message& message, size_t room) {
    for (const bool verbose : {true, false}) {
        const auto line = exact(std::string(room, '~'));
        const int n = Vorn_printer(verbose).snprint(message, line.get(), static_cast<int>(room));
        require(n >= 0, "the printer gives a length");
        require(n == 0 || room == 0 || memchr(line.get(), 0, room), "what is printed ends in a zero");
    }
}

void read_fields(const Vorn_message& message) {
    for (const bool skip : {false, true}) {
        const Ascii_message text(message, skip);
        const int valid = text.get_num_valid_fields();
        for (int k = 0; k <= valid && k < 100; ++k) {
            int len;
            const char* field = text.get_string(k, len);
            require(!field || (field >= text.text && field + len <= text.text + text.size), "a field lies in the text");
            require(k == valid || field, "valid fields exist");
            text.get_double(k), text.get_int32(k), text.get_uint32(k), text.get_timeval(k), text.get_char(k);
        }
        text.name_match("RE"), text.isnull();
    }
}

void read_reply(unsigned char* bytes, uint32_t n) {
    Vorn_response reply(bytes, n);
    const char* body = reply.get_response_string();
    require(*body == 0 || (body > reinterpret_cast<char*>(bytes) && body < reinterpret_cast<char*>(bytes) + n),
            "the body lies in the reply");
    const int code = Vorn_error_decoder::extract(reinterpret_cast<char*>(bytes), static_cast<int>(n));
    require(code == -1 || errcode2str(code), "an error number has a text");
    int len;
    const char* reason = reply.strip_identifier(len);
    require(!reason || (reason + len <= reinterpret_cast<char*>(bytes) + n), "the reason lies in the reply");
}

void salvage(const std::string& bytes) {
    Vorn_salvage whole, pieces;
    const auto count = [](Vorn_salvage& s, int& frames) {
        int len;
        while (unsigned char* frame = s.next(len)) {
            ++frames;
            require(Vorn_message(frame, static_cast<uint32_t>(len)).check_checksum(), "a salvaged frame is sound");
        }
    };
    int at_once = 0, by_and_by = 0;
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    whole.add(p, static_cast<int>(bytes.size()));
    count(whole, at_once);
    for (size_t i = 0; i < bytes.size(); ++i) {
        pieces.add(p + i, 1);
        count(pieces, by_and_by);
    }
    // Of frames one in the other, the outer one is found first, unless the inner one was whole before.
    require(bytes.size() > Vorn_salvage::capacity || at_once <= by_and_by, "no frame is lost by coming in pieces");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    be_quiet();
    if (size < 1) return 0;
    const std::string bytes = text_of(data + 1, size - 1);
    const auto block = exact(bytes);
    const auto n = static_cast<uint32_t>(bytes.size());
    const Vorn_message message(block.get(), n);
    print(message, data[0] < 128 ? data[0] : 32768);
    read_fields(message);
    read_reply(reinterpret_cast<unsigned char*>(block.get()), n);
    salvage(bytes);
    return 0;
}
