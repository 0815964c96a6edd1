// SPDX-License-Identifier: MIT
// Messages of a receiver, cut out of a stream of bytes: checked, printed, read through views; a refused command; and
// what the line has spoilt.
//
// Prints:
//     49.200000 8.600000 degrees, 112.5 m
//     PG lat=49.2000000000 lon=8.6000000000 hgt=112.500m sigma=0.05 type=4
//     PG,49.2000000000,8.6000000000,112.500,0.05,4
//     Unexpected msg PG(65) in DS(...)[...]
//     text of 36 bytes
//     command refused: error 5, "value out of range"
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/vorn/GNSS_messages.h"
#include "glue/vorn/Vorn_checkers.h"
#include "glue/vorn/Vorn_error_decoder.h"
#include "glue/vorn/Vorn_printer.h"
#include "glue/vorn/Vorn_response.h"
#include "util/Debug_print.h"
#include <cstdio>

namespace {

constexpr double radians = 3.141592653589793 / 180;

/// What a receiver would send: fields at their offsets, the checksum, a line end.
void send_position(Data_stream& to, double lat, double lon, const char* length_digits) {
    unsigned char bytes[37] = {};
    Vorn_message frame(bytes, 35);
    frame.setup(GNSS_messages::id_PG, 35);
    frame.set_double(5, lat * radians);
    frame.set_double(13, lon * radians);
    frame.set_double(21, 112.5);
    frame.set_float(29, 0.05f);
    frame.set_uint8(33, 4);
    frame.set_checksum();
    frame.set_bytes(2, length_digits, 3);
    bytes[35] = '\r';
    bytes[36] = '\n';
    to._write(bytes, sizeof bytes);
}

void handle_frame(const Vorn_message& frame) {
    if (!frame.check_checksum()) return;
    if (frame.get_id() == GNSS_messages::id_PG) {
        const GNSS_messages::Msg_PG position(frame);
        printf("%.6f %.6f degrees, %.1f m\n", position.lat() / radians, position.lon() / radians, position.hgt());
    }
    char line[256];
    Vorn_printer printer(true);
    if (printer.snprint(frame, line, sizeof line) > 0) puts(line);
    printer.verbose = false; // for logs
    if (printer.snprint(frame, line, sizeof line) > 0) puts(line);
}

void handle_reply(const Vorn_message& frame) {
    Vorn_response reply(frame);
    if (reply.get_response_status()) return; // "RE"
    int length;
    const char* const text = reply.strip_identifier(length);
    const int code = text ? Vorn_error_decoder::extract(text, length) : -1;
    if (code > 0) printf("command refused: error %d, \"%s\"\n", code, errcode2str(code) + 1);
}

/// Whatever is complete. A diner calls this when its stream has woken it.
void handle_packets(Vorn_parser& parser) {
    unsigned char packet[4104];
    int n;
    while (const int kind = parser.get_packet(packet, sizeof packet, n)) {
        const Vorn_message frame(packet, static_cast<unsigned>(n));
        if (kind == Vorn_parser::kind_frame) handle_frame(frame);
        if (kind == Vorn_parser::kind_reply) handle_reply(frame);
        if (kind == Vorn_parser::kind_text) printf("text of %d bytes\n", n);
    }
}

} // namespace

int main() {
    Debug_print::debug_file = stdout; // where the parser says what its checker refused
    Virtual_pair_data_stream line(nullptr);
    line.b.set_read_timeout(0); // the parser takes what is there
    Vorn_parser parser(&line.b, true);
    Vorn_length_checker checker; // known messages at lengths that they can have
    parser.set_checker(&checker);

    send_position(line.a, 49.2, 8.6, "01E");
    handle_packets(parser);
    send_position(line.a, 49.3, 8.7, "03C"); // a length that the line has damaged
    line.a.printf("ER%03X%s\r\n", 25u, "%7%{5,value out of range}");
    handle_packets(parser);
}
