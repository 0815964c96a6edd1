// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Vorn_parser.h"
#include "support/capture.h"
#include <algorithm>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <vector>

/// A stream over bytes in memory that counts how often it is asked to fetch.
class Fed_stream : public Data_stream {
public:
    enum Manner {
        pushed,   ///< filled by feed() alone, under a lock, as by a reader thread
        pulled,   ///< each fetch reads portions until there is enough
        hesitant, ///< each fetch reads one portion, enough or not
    };

    /// Portion 0: 1 to 256 bytes, by chance.
    explicit Fed_stream(std::string bytes = {}, Manner m = pushed, size_t portion = SIZE_MAX)
        : _source(std::move(bytes)), _manner(m), _portion(portion) {
        if (m == pushed) stream_lock = &_mutex;
    }
    bool get_data(int n) override {
        ++fetches;
        if (stream_lock) stream_lock->check(Mutex::status_mine);
        if (_manner == pushed) return false;
        for (const uint32_t wanted = buffer.used() + static_cast<uint32_t>(n);;) {
            const bool more = read() > 0 && _manner == pulled;
            if (!more || buffer.used() >= wanted) return buffer.used() >= wanted;
        }
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
    uint32_t read() {
        const size_t portion = _portion ? _portion : 1 + _chance() % 256;
        const auto n = static_cast<uint32_t>(std::min(portion, _source.size() - _next));
        const uint32_t stored = buffer.put(reinterpret_cast<const unsigned char*>(_source.data()) + _next, n);
        _next += stored;
        return stored;
    }

    std::string _source;
    size_t _next = 0; ///< of `_source`: not yet read
    const Manner _manner;
    const size_t _portion;
    std::minstd_rand _chance;
    Mutex _mutex;
};

/// The parser as its rules are told, one byte at a time through the stream's public operations.
class Parser_model {
public:
    Parser_model(Fed_stream& s, Vorn_parser::Checker* c) : _s(s), _checker(c) {}

    int get_packet(unsigned char* buf, int buf_size, int& len) {
        len = 0;
        const auto room = static_cast<unsigned>(std::max(buf_size, 0));
        while (_s.bytes_avail(5u)) {
            if (!synced) {
                unsigned i = 0;
                for (; i < 4190 && !newline(i); ++i) {
                    if (!_s.bytes_avail(i)) return 0;
                }
                if (i == 4190 && !_s.drop(4190)) return 0;
                if (i == 4190) continue;
                synced = 1;
                while (i + 1 < 4200 && newline(i + 1)) ++i;
                len = move(buf, std::min(i + 1, room));
                return 3;
            }
            const unsigned char a = _s[0], b = _s[1];
            if (a < 48 || a > 126 || b < 48 || b > 126) {
                synced = a == 0 && _s.drop(1);
                continue;
            }
            const char digits[4] = {static_cast<char>(_s[2]), static_cast<char>(_s[3]), static_cast<char>(_s[4]), 0};
            const bool hex = strspn(digits, "0123456789abcdefABCDEF") == 3;
            const unsigned total = static_cast<unsigned>(strtoul(digits, nullptr, 16)) + 5;
            if (!hex ||
                (_checker && !_checker->check(_s, static_cast<unsigned short>(a + 256 * b), static_cast<int>(total)))) {
                if (!keep_on_reject) _s.drop(1);
                synced = 0;
                continue;
            }
            const unsigned need = total + expect_line_end;
            if (!_s.bytes_avail(need)) return 0;
            const bool reply = (a == 'R' && b == 'E') || (a == 'E' && b == 'R');
            if (expect_line_end && reply) {
                if (_s[need - 1] == '\r' && !_s.bytes_avail(need + 1)) return 0;
                if (_s[need] == '\n') {
                    len = move(buf, std::min(need + 1, room));
                    for (int zeros = 0; zeros < 2 && len < buf_size; ++zeros) buf[len++] = 0;
                    return 2;
                }
            }
            if (expect_line_end && (reply || !newline(need - 1))) {
                _s.drop(1);
                continue;
            }
            len = move(buf, std::min(need, room));
            while (_s.bytes_avail(1u) && (newline(0) || _s[0] == 0)) _s.drop(1);
            if (!expect_line_end && len < buf_size) buf[len++] = '\n';
            return 1;
        }
        return 0;
    }

    int synced = 1;
    bool expect_line_end = true, keep_on_reject = false;

private:
    bool newline(unsigned i) { return _s.bytes_avail(i) && (_s[i] == '\r' || _s[i] == '\n'); }
    int move(unsigned char* buf, unsigned n) {
        for (unsigned i = 0; i < n; ++i) {
            buf[i] = _s[0];
            _s.drop(1);
        }
        return static_cast<int>(n);
    }

    Fed_stream& _s;
    Vorn_parser::Checker* _checker;
};

/// Refuses without sense but always the same, and uses the stream as real checkers do.
class Whimsical_checker : public Vorn_parser::Checker {
public:
    bool check(Data_stream& s, unsigned short id, int total) override {
        return s.bytes_avail() >= 5 && s[0] + 256 * s[1] == id && s[4] != '7' && total < 2000;
    }
};

/// A course of events for the parser and for the model.
struct Session {
    std::string bytes;
    Fed_stream::Manner manner = Fed_stream::pushed;
    size_t portion = SIZE_MAX;
    int buf_size = 8192;
    bool expect_line_end = true, keep_on_reject = false, with_checker = false;
    unsigned meddler = 0; ///< seed of somebody else who now and then drops bytes of the stream; 0: nobody does
};

/// Run the session on both and compare each packet and what stays behind it. The first difference in words; empty when
/// there is none.
inline std::string difference(const Session& session) {
    Whimsical_checker checker;
    Fed_stream ours(session.bytes, session.manner, session.portion);
    Fed_stream theirs(session.bytes, session.manner, session.portion);
    theirs.stream_lock = nullptr; // the model would take it for each byte
    Vorn_parser parser(&ours, false);
    Parser_model model(theirs, session.with_checker ? &checker : nullptr);
    if (session.with_checker) parser.set_checker(&checker);
    parser.expect_line_end = model.expect_line_end = session.expect_line_end;
    parser.keep_on_reject = model.keep_on_reject = session.keep_on_reject;

    std::vector<unsigned char> mine(static_cast<size_t>(session.buf_size)), its(mine);
    std::minstd_rand meddler(session.meddler);
    for (;;) {
        const auto deed = session.meddler ? meddler() % 64 : 0;
        for (Fed_stream* s : {&ours, &theirs}) {
            s->feed();
            if (deed == 1) s->drop_all();
            if (deed == 2) s->drop(40);
        }
        int len, its_len;
        const int kind = parser.get_packet(mine.data(), session.buf_size, len);
        const int its_kind = model.get_packet(its.data(), session.buf_size, its_len);
        const bool same_bytes = len == its_len && std::equal(mine.begin(), mine.begin() + len, its.begin());
        if (kind != its_kind || !same_bytes || parser.synced != model.synced ||
            ours.buffer.dropped != theirs.buffer.dropped || ours.buffer.used() != theirs.buffer.used())
            return text_of("kind %d length %d, model: kind %d length %d, before byte %llu", kind, len, its_kind,
                           its_len, static_cast<unsigned long long>(theirs.buffer.dropped));
        if (kind == 0 && ours.dry()) return "";
    }
}
