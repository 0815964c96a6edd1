// SPDX-License-Identifier: MIT
// What a packet goes through behind the parser: the views, the printer, the fields of a text, the error numbers, the
// salvage. The first byte says how much room the printer has.
#include "fuzz/checks.h"
#include "glue/vorn/Ascii_message.h"
#include "glue/vorn/Vorn_error_decoder.h"
#include "glue/vorn/Vorn_printer.h"
#include "glue/vorn/Vorn_response.h"
#include "glue/vorn/Vorn_salvage.h"
#include <vector>

namespace {

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

void read_reply(char* bytes, uint32_t n) {
    Vorn_response reply(bytes, n);
    const char* const body = reply.get_response_string();
    require(*body == 0 || (body > bytes && body < bytes + n), "the body lies in the reply");
    const int code = Vorn_error_decoder::extract(bytes, static_cast<int>(n));
    require(code == -1 || errcode2str(code), "an error number has a text");
    int len;
    const char* const reason = reply.strip_identifier(len);
    require(!reason || reason + len <= bytes + n, "the reason lies in the reply");
}

/// The number of frames that are found in bytes that come in such pieces.
int salvaged(const std::string& bytes, size_t piece) {
    Vorn_salvage s;
    int frames = 0, len;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        const std::string some = bytes.substr(at, piece);
        s.add(reinterpret_cast<const unsigned char*>(some.data()), static_cast<int>(some.size()));
        for (; unsigned char* frame = s.next(len); ++frames)
            require(Vorn_message(frame, static_cast<uint32_t>(len)).check_checksum(), "a salvaged frame is sound");
    }
    return frames;
}

} // namespace

void fuzz(Input in) {
    const unsigned room = in.next();
    const std::string bytes = in.rest();
    std::vector<char> block(bytes.begin(), bytes.end());
    const auto n = static_cast<uint32_t>(bytes.size());
    const Vorn_message message(block.data(), n);
    for (const bool verbose : {true, false}) {
        std::vector<char> line(room < 128 ? room : 32768, '~');
        const int length = Vorn_printer(verbose).snprint(message, line.data(), static_cast<int>(line.size()));
        require(length == 0 || (length > 0 && memchr(line.data(), 0, line.size())), "what is printed ends in a zero");
    }
    read_fields(message);
    read_reply(block.data(), n);
    // Of frames one in the other, the outer one is found first, unless the inner one was whole before.
    require(n > Vorn_salvage::capacity || salvaged(bytes, SIZE_MAX) <= salvaged(bytes, 1), "pieces lose no frame");
}
