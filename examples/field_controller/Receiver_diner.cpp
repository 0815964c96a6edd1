// SPDX-License-Identifier: MIT
#include "Receiver_diner.h"
#include "Machine_clock.h"
#include "Machine_codes.h"
#include "glue/vorn/GNSS_messages.h"
#include "glue/vorn/Vorn_error_decoder.h"
#include "glue/vorn/Vorn_message.h"
#include <algorithm>
#include <cstdio>
#include <cstring>

Receiver_diner::Receiver_diner(Posix_threaded_serial_data_stream& stream, Machine_store& store, Fault_history& faults,
                               Link_watch* watch, bool quiet)
    : _stream(stream)
    , _store(store)
    , _faults(faults)
    , _watch(watch)
    , _quiet(quiet)
    , _parser(&stream, true)
    , _printer(true) {
    _parser.set_checker(&_checker);
    _second.period = second_ms;
    if (_watch) _watch->looked_at(0); // from now on the writer waits for us
}

Receiver_diner::~Receiver_diner() {
    _stream.deregister_waiter(&waiter);
    terminate(true);
}

void Receiver_diner::init(module_man& modules) {
    Options options;
    options.pass_anonymous = true;
    init(modules, Descriptor("RECEIVER", 2), options);
    _stream.register_waiter(&waiter);
}

Receiver_diner::Counts Receiver_diner::counts() const {
    lock(-1);
    Counts c = _counts;
    c.refused = _checker.refused;
    unlock();
    return c;
}

/// Of what came over the line, noise that looks like a text included: nothing in it moves the terminal's cursor.
void Receiver_diner::print(char* text) const {
    if (_quiet) return;
    for (char* c = text; *c; ++c)
        if (*c < ' ' || *c > '~') *c = '.';
    puts(text);
}

void Receiver_diner::handle_event(waiter_event&) {
    if (_watch) _counts.longest_us = std::max(_counts.longest_us, _watch->handled());
    const uint32_t there = _stream.counts().read;
    unsigned char packet[4200];
    int length;
    while (const int kind = _parser.get_packet(packet, sizeof packet - 1, length)) {
        packet[length] = 0;
        if (kind == 1) {
            handle_frame(packet, length);
        } else if (kind == 2) {
            handle_reply(reinterpret_cast<char*>(packet));
        } else if (std::strspn(reinterpret_cast<char*>(packet), "\r\n") != static_cast<size_t>(length)) {
            ++_counts.text_lines;
        }
    }
    if (_watch) _watch->looked_at(there);
}

/// What is wrong with the line.
void Receiver_diner::handle_timeout(Timeout&) {
    const uint32_t there = _stream.counts().read;
    _silent = there == _bytes_before ? _silent + 1 : 0;
    const unsigned good = _counts.delivered - _before.delivered, bad = _counts.rejected - _before.rejected;
    _faults.set(Machine_codes::line_lost, _silent >= lost_after);
    _faults.set(Machine_codes::wrong_checksums, bad * 20 > good + bad);
    _before = _counts;
    _bytes_before = there;
}

void Receiver_diner::handle_reply(char* text) {
    ++_counts.replies;
    text[std::strcspn(text, "\r\n")] = 0;
    const int code = Vorn_error_decoder::extract(text);
    char line[400];
    if (code > 0)
        snprintf(line, sizeof line, "%s (error %d: %s)", text, code, errcode2str(code) + 1);
    else
        snprintf(line, sizeof line, "%s", text);
    print(line);
}

void Receiver_diner::handle_frame(unsigned char* bytes, int length) {
    Vorn_message frame(bytes, static_cast<unsigned>(length));
    if (!GNSS_messages::has_checksum(frame.get_id())) {
        --frame.size; // the line end is no part of a text
    } else if (!frame.check_checksum()) {
        ++_counts.rejected;
        return;
    }
    ++_counts.delivered;
    publish(frame);
    char line[1024];
    if (!_quiet && _printer.snprint(frame, line, sizeof line) > 0) print(line);
}

void Receiver_diner::publish(const Vorn_message& frame) {
    if (frame.get_id() == GNSS_messages::id_PG) {
        ++_counts.positions;
        const GNSS_messages::Msg_PG pg(frame);
        _store.put(&Machine_block::position, {pg.lat(), pg.lon(), pg.hgt()});
        _store.put(&Machine_block::quality, {pg.type(), pg.sigma()});
    } else if (frame.get_id() == GNSS_messages::id_GT && _clock) {
        const GNSS_messages::Msg_GT gt(frame);
        Machine_clock::set(int64_t{1000} * (int64_t{gt.week()} * 604800 + Machine_clock::gps_to_utc) + gt.ms());
        _clock->check(); // a clock of the system's tells by itself
        _clock = nullptr;
    } else if (frame.get_id() == GNSS_messages::id_PS) {
        const GNSS_messages::Msg_PS ps(frame);
        _store.put(&Machine_block::satellites, {{ps.locked(0), ps.locked(1)}, {ps.used(0), ps.used(1)}});
    }
}
