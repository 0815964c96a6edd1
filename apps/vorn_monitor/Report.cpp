// SPDX-License-Identifier: MIT
#include "Report.h"
#include "glue/vorn/GNSS_messages.h"
#include "glue/vorn/Vorn_error_decoder.h"
#include "glue/vorn/Vorn_parser.h"
#include "glue/vorn/Vorn_response.h"
#include "util/number_text.h"
#include <cerrno>
#include <cstring>

namespace {

/// Text for a terminal: without its line end, and nothing in it that moves the cursor.
std::string printable(const void* text, size_t n) {
    const auto* p = static_cast<const unsigned char*>(text);
    while (n > 0 && (p[n - 1] == '\r' || p[n - 1] == '\n' || p[n - 1] == 0)) --n;
    std::string s(p, p + n);
    for (char& c : s) {
        if (c < ' ' || c > '~') c = '.';
    }
    return s;
}

} // namespace

void Report::packet(int kind, unsigned char* bytes, int len) {
    print(kind, bytes, static_cast<uint32_t>(len));
    if (_output_error == 0 && ferror(stdout)) _output_error = errno ? errno : EIO;
}

void Report::print(int kind, unsigned char* bytes, uint32_t n) {
    switch (kind) {
    case Vorn_parser::kind_frame:
        return frame(bytes, n);
    case Vorn_parser::kind_reply:
        return reply(bytes, n);
    case Vorn_parser::kind_text:
        return text(bytes, n);
    }
}

void Report::line(const std::string& id, const std::string& rest) const { puts((id + _comma + rest).c_str()); }

void Report::frame(unsigned char* bytes, uint32_t n) {
    Vorn_message m(bytes, n);
    const std::string id = printable(bytes, 2);
    if (!GNSS_messages::has_checksum(m.get_id())) {
        ++_frames[m.get_id()];
        line(id, printable(bytes + Vorn_message::header_size, n - Vorn_message::header_size));
        return;
    }
    if (!m.check_checksum()) {
        ++_wrong;
        _plot.mark("wrong checksum");
        line(id, "wrong checksum" + (_comma + std::to_string(n - 1)) + " bytes");
        return;
    }
    ++_frames[m.get_id()];
    if (m.get_id() == GNSS_messages::id_PG) {
        const GNSS_messages::Msg_PG position(m);
        _plot.add(position.lat(), position.lon(), position.type());
    }
    m.size = n - 1; // the line end was wanted for the check only
    if (!GNSS_messages::find(m.get_id())) {
        std::string rest = "unknown";
        for (uint32_t i = Vorn_message::header_size; i + 1 < m.size; ++i) { // the body without its checksum
            Util::format(_line, sizeof _line, " %02x", unsigned(m.data[i]));
            rest += _line;
        }
        line(id, rest);
    } else if (_printer.snprint(m, _line, sizeof _line) > 0) {
        puts(printable(_line, strlen(_line)).c_str());
    }
}

void Report::reply(unsigned char* bytes, uint32_t n) {
    ++_replies;
    Vorn_response r(bytes, n);
    const std::string body = printable(bytes + Vorn_message::header_size, n - Vorn_message::header_size);
    if (r.get_response_status()) {
        line("RE", body);
        return;
    }
    ++_errors;
    int len;
    const char* reason = r.strip_identifier(len);
    const int code = reason ? Vorn_error_decoder::extract(reason, len) : Vorn_error_decoder::extract(body.c_str());
    const char* known = errcode2str(code);
    const char* meaning = known ? known + 1 : "unknown error"; // behind the comma of the table
    printf(_csv ? "ER,%d,%s,%s\n" : "ER error %d (%s): %s\n", code, meaning, body.c_str());
}

void Report::text(const unsigned char* bytes, uint32_t n) {
    constexpr size_t shown = 100;
    const std::string s = printable(bytes, n);
    if (s.empty()) return; // a line end that came late
    ++_texts;
    _plot.mark("text or noise");
    line("TEXT", s.size() <= shown ? s : s.substr(0, shown) + "... " + std::to_string(n) + " bytes");
}

void Report::summary(const Data_stream& stream, int incomplete) const {
    unsigned total = 0;
    for (const auto& [id, count] : _frames) total += count;
    fprintf(stderr, "frames          %10u\n", total);
    for (const auto& [id, count] : _frames) {
        const unsigned char wire[2] = {static_cast<unsigned char>(id), static_cast<unsigned char>(id >> 8)};
        const GNSS_messages::Info* info = GNSS_messages::find(id);
        fprintf(stderr, "  %-14s%10u  %s\n", printable(wire, 2).c_str(), count, info ? info->about : "unknown");
    }
    fprintf(stderr, "wrong checksums %10u\n", _wrong);
    fprintf(stderr, "replies         %10u  (%u errors)\n", _replies, _errors);
    fprintf(stderr, "text lines      %10u\n", _texts);
    const Data_stream::Counts counts = stream.counts();
    fprintf(stderr, "bytes           %10u\n", counts.read);
    fprintf(stderr, "bytes lost      %10u\n", counts.lost);
    fprintf(stderr, "bytes left over %10d\n", incomplete);
}
