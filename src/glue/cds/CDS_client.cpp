// SPDX-License-Identifier: MIT
#include "glue/cds/CDS_client.h"
#include "glue/cds/CDS_remote.h"
#include "util/bytes.h"
#include <cstdint>

namespace CDS::Remote {
namespace {

/// [frames] that answer no question of ours, for instance an earlier one that was given up.
constexpr int max_others = 16;

std::string u2(unsigned short value) {
    char bytes[2];
    Send_buffer(bytes, 0, sizeof bytes).append_UINT16(value);
    return std::string(bytes, sizeof bytes);
}

std::string u4(unsigned value) {
    char bytes[4];
    Send_buffer(bytes, 0, sizeof bytes).append_UINT32(value);
    return std::string(bytes, sizeof bytes);
}

} // namespace

Client::Result Client::description(std::string& text) {
    text.clear();
    std::string page;
    do {
        if (text.size() >= max_description) return refused;
        const Result result = ask(Frame::description, u4(static_cast<unsigned>(text.size())), page);
        if (result != done) return result;
        text += page;
    } while (page.size() == Frame::max_contents);
    return done;
}

Client::Result Client::values(unsigned short item, unsigned short start, std::string& bytes) {
    return ask(Frame::values, u2(item) + u2(start), bytes);
}

Client::Result Client::write(unsigned short item, const std::string& value, Frame::Write_result& result) {
    std::string answer;
    if (value.size() + 2 > Frame::max_contents) {
        result = Frame::wrong_length;
        return done;
    }
    const Result asked = ask(Frame::write, u2(item) + value, answer);
    if (asked != done) return asked;
    if (answer.size() != 1) return refused;
    result = static_cast<Frame::Write_result>(answer[0]);
    return done;
}

Client::Result Client::ask(Frame::Kind kind, const std::string& contents, std::string& answer) {
    Result result = no_answer;
    for (int i = 0; i < attempts && result == no_answer; ++i) {
        Frame request;
        request.kind = kind;
        request.tag = ++_tag;
        request.contents = contents.data();
        request.length = static_cast<int>(contents.size());
        char bytes[Frame::max_size];
        const auto size = static_cast<unsigned>(request.write_to(bytes));
        // Even a request that could not be sent may have an answer: the one that says why the server has hung up.
        const bool sent = _line._write(reinterpret_cast<unsigned char*>(bytes), size) == size;
        result = receive(_tag, kind, answer);
        if (!sent) break;
    }
    return result;
}

/// The answer to a request. After garbage the line is emptied: the next attempt finds it in step again.
Client::Result Client::receive(unsigned char tag, Frame::Kind kind, std::string& answer) {
    for (int others = 0; others < max_others; ++others) {
        unsigned char bytes[Frame::max_size];
        if (!_line.get_data(bytes, Frame::head_size)) break;
        const unsigned length = Util::from_little_endian<uint16_t>(bytes + 2);
        const unsigned size = Frame::head_size + length + Frame::trailer_size;
        if (length > Frame::max_contents || !_line.get_data(bytes, size)) break;
        Frame frame;
        if (frame.read(reinterpret_cast<char*>(bytes), static_cast<int>(size)) < 0) break;
        _line.drop(size);
        if (frame.kind == Frame::refusal && frame.length == 1)
            return frame.contents[0] == Frame::too_many_clients ? busy
                   : frame.contents[0] == Frame::block_locked   ? locked
                                                                : refused;
        if (frame.kind != kind || frame.tag != tag) continue;
        answer.assign(frame.contents, static_cast<size_t>(frame.length));
        return done;
    }
    _line.drop_all();
    return no_answer;
}

} // namespace CDS::Remote
