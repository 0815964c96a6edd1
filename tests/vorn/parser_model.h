// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Vorn_checkers.h"
#include "support/capture.h"
#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <vector>

/// A stream over bytes in memory that counts how often it is asked to fetch.
class Fed_stream : public Data_stream {
public:
    enum Manner {
        pushed, ///< filled by feed() alone, under a lock, as by a reader thread
        pulled, ///< each fetch reads one portion, enough or not
    };

    explicit Fed_stream(std::string bytes = {}, Manner m = pushed, size_t portion = SIZE_MAX)
        : _source(std::move(bytes)), _manner(m), _portion(portion) {
        if (m == pushed) stream_lock = &_mutex;
    }
    bool get_data(int n) override {
        ++fetches;
        if (stream_lock) stream_lock->check(Mutex::status_mine);
        const uint32_t wanted = buffer.used() + static_cast<uint32_t>(n);
        if (_manner == pulled) read();
        return buffer.used() >= wanted;
    }
    using Data_stream::get_data;
    unsigned _write(const unsigned char*, unsigned) override { return 0; }

    /// What a reader thread does; nothing on a stream that reads on demand.
    void feed() {
        const std::lock_guard<Mutex> held(_mutex);
        if (_manner == pushed) read();
    }
    bool dry() const { return _next == _source.size(); }
    /// What is not consumed.
    std::string left() { return _source.substr(buffer.dropped); }

    int fetches = 0;

private:
    void read() {
        const auto n = static_cast<uint32_t>(std::min(_portion, _source.size() - _next));
        _next += buffer.put(reinterpret_cast<const unsigned char*>(_source.data()) + _next, n);
    }

    std::string _source;
    size_t _next = 0; ///< of `_source`: not yet read
    const Manner _manner;
    const size_t _portion;
    Mutex _mutex;
};

/// The parser as its rules are told, one byte at a time through the stream's public operations.
struct Parser_model {
    int get_packet(std::string& packet, size_t room) {
        packet.clear();
        while (s.bytes_avail(5u)) {
            if (!synced) {
                unsigned i = 0;
                for (; i < 4190 && !newline(i); ++i) {
                    if (!s.bytes_avail(i)) return 0;
                }
                if (i == 4190 && !s.drop(4190)) return 0;
                if (i == 4190) continue;
                synced = 1;
                while (i + 1 < 4200 && newline(i + 1)) ++i;
                move(packet, i + 1, room);
                return 3;
            }
            const unsigned char a = s[0], b = s[1];
            if (a < 48 || a > 126 || b < 48 || b > 126) {
                synced = a == 0 && s.drop(1);
                continue;
            }
            const char digits[4] = {static_cast<char>(s[2]), static_cast<char>(s[3]), static_cast<char>(s[4]), 0};
            const bool hex = strspn(digits, "0123456789abcdefABCDEF") == 3;
            const unsigned total = static_cast<unsigned>(strtoul(digits, nullptr, 16)) + 5,
                           need = total + expect_line_end;
            const auto accepts = [&, id = static_cast<unsigned short>(a + 256 * b)] {
                return hex && (!checker || checker->check(s, id, static_cast<int>(total)));
            };
            if (accepts() && !s.bytes_avail(need)) return 0;
            if (!accepts()) { // asked again, as it may have seen a part of it only
                if (!keep_on_reject) s.drop(1);
                synced = 0;
                continue;
            }
            const bool reply = (a == 'R' && b == 'E') || (a == 'E' && b == 'R');
            if (expect_line_end && reply) {
                if (s[need - 1] == '\r' && !s.bytes_avail(need + 1)) return 0;
                if (s[need] == '\n') {
                    move(packet, need + 1, room);
                    packet.append(std::min<size_t>(2, room - packet.size()), 0);
                    return 2;
                }
            }
            if (expect_line_end && (reply || !newline(need - 1))) {
                s.drop(1);
                continue;
            }
            move(packet, need, room);
            while (s.bytes_avail(1u) && (newline(0) || s[0] == 0)) s.drop(1);
            if (!expect_line_end && packet.size() < room) packet += '\n';
            return 1;
        }
        return 0;
    }
    bool newline(unsigned i) { return s.bytes_avail(i) && (s[i] == '\r' || s[i] == '\n'); }
    void move(std::string& packet, unsigned n, size_t room) {
        for (; n > 0 && packet.size() < room; --n, s.drop(1)) packet += static_cast<char>(s[0]);
    }

    Fed_stream& s;
    Vorn_parser::Checker* checker;
    bool expect_line_end, keep_on_reject;
    int synced = 1;
};

/// Let the parser and the model take what a line brings and compare each packet and what stays behind it. The first
/// difference in words; empty when there is none. Six bytes of the input say how, the others come over the line.
inline std::string difference(const std::string& input) {
    const auto how = [&input](size_t i) { return static_cast<unsigned char>(input[i]); };
    const auto manner = how(0) % 3 == 0 ? Fed_stream::pushed : Fed_stream::pulled;
    // The model starts over with each portion: tiny ones are for short inputs.
    const size_t portion = std::max(how(1) == 0 ? SIZE_MAX : how(1), input.size() / 64);
    const int room = std::array{8192, 4103, 4101, 64, 10, 9, 8, 1}[how(2) % 8];
    const bool expect_line_end = !(how(3) & 1), keep_on_reject = how(3) & 2, serves = how(3) & 16;
    Vorn_length_checker by_length;
    Vorn_checksum_checker by_checksum;
    Vorn_parser::Checker* const checker = how(3) & 8 ? &by_checksum : how(3) & 4 ? &by_length : nullptr;
    std::minstd_rand meddler(how(4) + 256u * how(5)); // somebody else who drops bytes of the stream; 0: nobody does
    const bool meddles = how(4) || how(5);

    Fed_stream ours(input.substr(6), manner, portion), theirs(input.substr(6), manner, portion);
    theirs.stream_lock = nullptr; // the model would take it for each byte
    Vorn_parser parser(&ours, false);
    if (checker) parser.set_checker(checker);
    if (serves && checker == &by_length) by_length.serve(parser);
    if (serves && checker == &by_checksum) by_checksum.serve(parser);
    parser.expect_line_end = expect_line_end;
    parser.keep_on_reject = keep_on_reject;
    Parser_model model{theirs, checker, expect_line_end, keep_on_reject};

    std::string mine(static_cast<size_t>(room), 0), its;
    for (;;) {
        const auto deed = meddles ? meddler() % 64 : 0;
        for (Fed_stream* s : {&ours, &theirs}) {
            s->feed();
            if (deed == 1) s->drop_all();
            if (deed == 2) s->drop(40);
        }
        int len;
        const int kind = parser.get_packet(reinterpret_cast<unsigned char*>(&mine[0]), room, len);
        const int its_kind = model.get_packet(its, mine.size());
        if (kind != its_kind || mine.substr(0, static_cast<size_t>(len)) != its || parser.synced != model.synced ||
            ours.buffer.dropped != theirs.buffer.dropped || ours.buffer.used() != theirs.buffer.used())
            return text_of("kind %d length %d, model: kind %d length %zu, before byte %llu", kind, len, its_kind,
                           its.size(), static_cast<unsigned long long>(theirs.buffer.dropped));
        if (kind == 0 && ours.dry()) return "";
    }
}
