// SPDX-License-Identifier: MIT
// Messages of a program's own in the receiver's framing: one of binary fields and one of text, built, sent over a
// stream, cut out of it by a parser that knows them, and read. A damaged frame is refused.
//
// Prints:
//     sent 49 4D 30 30 45 00 00 48 C1 01 11 70 85 50 4C 35 00 00 D6 0D
//     implement PL5: tilt -12.5 degrees, 70000 turns, gear 5, lifted
//     task "headland" of 5400 s, 4.5 m wide, 3 fields
//     a damaged frame of 20 bytes
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/vorn/Ascii_message.h"
#include "glue/vorn/Vorn_checkers.h"
#include "glue/vorn/Vorn_message.h"
#include <cstdio>
#include <cstring>

namespace {

/// "IM", what an implement says. A view like the library's own: it copies nothing.
struct Implement : Vorn_message {
    static constexpr uint16_t id = 'I' | 'M' << 8;
    static constexpr uint32_t size_total = 19; ///< with header and checksum [bytes]

    explicit Implement(const Binary_message& m) : Vorn_message(m) {}
    float tilt() const { return get_float(5); }              // [degrees]
    uint32_t turns() const { return get_uint24_be(9); }      // a counter of three bytes
    uint32_t gear() const { return get_bits_lsb(12, 0, 4); } // a byte's low four bits
    bool lifted() const { return get_bit_msb(12, 7); }       // and its highest one
    const char* name() const { return get_string(13, 4); }   // up to four characters and a zero
};

/// "IT", a task: text in fields, "{name,duration,width}".
constexpr uint16_t id_task = 'I' | 'T' << 8;

class Own_checker : public Vorn_length_checker {
public:
    bool check(Data_stream& stream, unsigned short id, int total_len) override {
        if (id == Implement::id) return total_len == Implement::size_total;
        if (id == id_task) return total_len <= longest_text;
        return Vorn_length_checker::check(stream, id, total_len); // the receiver's messages
    }
};

/// The frame of a plough, and its line end, which is no part of it.
void build_implement(unsigned char (&bytes)[Implement::size_total + 1]) {
    Implement message({bytes, Implement::size_total});
    message.setup(Implement::id, Implement::size_total); // identifier and length digits
    message.set_float(5, -12.5f);
    message.set_uint24_be(9, 70000);
    message.set_bytes(12, 0, 1);
    message.set_bits_lsb(12, 0, 4, 5);
    message.set_bit_msb(12, true, 7);
    message.set_string(13, "PL5", 4);
    message.set_checksum(); // last, over all before it
    bytes[Implement::size_total] = '\r';
}

/// Text carries its checksum in text form: "@" and two digits, over all up to the "@".
void send_task(Data_stream& to, const char* fields) {
    char line[100];
    const int n = snprintf(line, sizeof line, "IT%03X%s@", static_cast<unsigned>(strlen(fields) + 3), fields);
    const Vorn_message summed(line, static_cast<uint32_t>(n));
    to.printf("%s%02X\r", line, summed.compute_8bit_checksum(summed.size));
}

void handle_frame(const Vorn_message& frame) {
    if (!frame.check_checksum()) {
        printf("a damaged frame of %u bytes\n", frame.size);
    } else if (frame.get_id() == Implement::id) {
        const Implement m(frame);
        printf("implement %s: tilt %.1f degrees, %u turns, gear %u%s\n", m.name(), static_cast<double>(m.tilt()),
               m.turns(), m.gear(), m.lifted() ? ", lifted" : "");
    } else if (frame.get_id() == id_task) {
        const Ascii_message text(frame, true); // without header and brace
        int length;
        const char* const name = text.get_string(0, length);
        printf("task \"%.*s\" of %d s, %.1f m wide, %d fields\n", length, name, text.get_timeval(1), text.get_double(2),
               text.get_num_valid_fields());
    }
}

} // namespace

int main() {
    Virtual_pair_data_stream line(nullptr);
    line.b.set_read_timeout(0); // the parser takes what is there
    Vorn_parser parser(&line.b, true);
    Own_checker checker;
    parser.set_checker(&checker);

    unsigned char bytes[Implement::size_total + 1];
    build_implement(bytes);
    printf("sent");
    for (const unsigned char byte : bytes) printf(" %02X", byte);
    puts("");
    line.a._write(bytes, sizeof bytes);
    send_task(line.a, "{headland,1h30m0s,4.5}");
    bytes[9] ^= 0x40; // as a bad line does
    line.a._write(bytes, sizeof bytes);

    unsigned char packet[4104];
    int n;
    while (const int kind = parser.get_packet(packet, sizeof packet, n))
        if (kind == Vorn_parser::kind_frame) handle_frame({packet, static_cast<uint32_t>(n)});
}
