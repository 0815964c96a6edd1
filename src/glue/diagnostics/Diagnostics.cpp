// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diagnostics/Diagnostics_messages.h"
#include "glue/diner/module_man.h"
#include "glue/vorn/Vorn_parser.h"
#include "util/Debug_base.h"
#include "util/Debug_print.h"
#include <cstdio>
#include <cstring>

using Diagnostics_messages::Msg_SP;

namespace {

constexpr int open_attempts = 5;
constexpr unsigned record_size = Msg_SP::size_total + 1; // [bytes] with its line feed
/// As many line ends as a frame with its own has bytes: whatever a torn record still waits for, these satisfy it, and
/// the record behind them is met whole.
constexpr unsigned closing_line_feeds = record_size;

bool debug_on() { return Debug_filter::enabled(_JDB::jdb_diagnostics); }

} // namespace

Diagnostics::Diagnostics(const char* base_name, unsigned max_file_bytes)
    : _enabled(strlen(base_name) <= longest_base_name), _max_file_bytes(max_file_bytes) {
    snprintf(_base_name, sizeof _base_name, "%s", base_name);
    if (!_enabled)
        Debug_print::bprint("Diagnostics: base name %s is longer than %d characters\n", base_name, longest_base_name);
}

Diagnostics::~Diagnostics() { terminate(true); }

int Diagnostics::init(module_man& mm, Diner_selector* s, int thread_priority) {
    mm.init_module(&_module_id, true);
    return init(mm, s, Descriptor("DIAG", 0), thread_priority, 256, false, false);
}

Diagnostics::File_name Diagnostics::file_name(int n) const {
    File_name name;
    snprintf(name.text, sizeof name.text, "%s%d.dat", _base_name, n);
    return name;
}

// ---- writing

bool Diagnostics::log_error(unsigned char src, unsigned short a, unsigned short b) {
    if (!_enabled || state.load(std::memory_order_acquire) != state_run) return false;
    const auto words = static_cast<unsigned>(a) | static_cast<unsigned>(b) << 16;
    return waiter.send_event(waiter_event(_module_id, src, words), false, false) == 0;
}

void Diagnostics::handle_event(waiter_event& event) {
    if (event.module_id == _module_id) store(event);
}

void Diagnostics::store(const waiter_event& event) {
    const Atime now = Atime::now();
    unsigned char record[record_size];
    Diagnostics_messages::build_SP(
        record, static_cast<unsigned char>(event.id), static_cast<unsigned short>(event.data),
        static_cast<unsigned short>(event.data >> 16), static_cast<unsigned>(now.time), now.millitm);
    record[Msg_SP::size_total] = '\n';

    if (PCFile_data_stream::mounted()) find_current_file();
    if (_started && make_room(record_size) && append(record, record_size)) {
        ++_written;
        return;
    }
    ++_lost;
    if (waiter_descriptor* w = _lost_waiter) w->send_event(waiter_event(_module_id, event_lost, 0), true, true);
}

/// Append to the current file; all of it or nothing counts.
bool Diagnostics::append(const unsigned char* bytes, unsigned n) {
    PCFile_data_stream stream;
    if (stream.open_write(file_name(_write_file).text, open_attempts) != PCFile_data_stream::done) return false;
    const bool complete = stream._write(bytes, n) == n;
    // A stream that could not write has closed itself.
    const bool closed = stream.is_open_write() && stream.close_write() == PCFile_data_stream::done;
    if (complete && closed) _file_bytes += n;
    return complete && closed;
}

/// Rotate until `n` bytes fit into the current file and the store. The store is asked each time: a stream's own write
/// ends the process when it finds the count of free bytes wrong.
bool Diagnostics::make_room(unsigned n) {
    if (_file_bytes + n > _max_file_bytes) rotate();
    for (int i = 0; i < num_files; ++i) {
        unsigned used, size;
        if (!PCFile_data_stream::get_free_space(used, size)) return false;
        if (size - used >= n + store_reserve) return true;
        rotate();
    }
    return false;
}

void Diagnostics::rotate() {
    _write_file = inc_file_num(_write_file);
    _file_bytes = 0;
    // The one behind the current file goes too: its absence marks the place.
    for (const int n : {_write_file, inc_file_num(_write_file)})
        if (PCFile_data_stream::exists(file_name(n).text)) PCFile_data_stream::remove(file_name(n).text);
}

/// Find out, once, which file was being written, and close it off against a record that a power cut has torn.
void Diagnostics::find_current_file() {
    if (_started) return;
    bool there[num_files];
    bool all = true;
    for (int n = 0; n < num_files; ++n) all &= there[n] = PCFile_data_stream::exists(file_name(n).text);
    unsigned newest = 0;
    for (int n = 0; n < num_files; ++n) {
        // A file is the current one when none follows it; after damage several may look so, then the newest record
        // tells.
        if (!there[n] || (there[inc_file_num(n)] && !all)) continue;
        const unsigned seconds = newest_record(n);
        if (seconds < newest) continue;
        newest = seconds;
        _write_file = n;
    }
    const File_name behind = file_name(inc_file_num(_write_file));
    if (PCFile_data_stream::exists(behind.text)) PCFile_data_stream::remove(behind.text);
    _started = true;

    if (!there[_write_file]) return;
    newest_record(_write_file); // counts its bytes
    unsigned char line_feeds[closing_line_feeds];
    memset(line_feeds, '\n', sizeof line_feeds);
    if (make_room(sizeof line_feeds + record_size) && _file_bytes > 0) append(line_feeds, sizeof line_feeds);
}

/// [s] the time of the newest record of a file, 0 without one; `_file_bytes` becomes the file's length.
unsigned Diagnostics::newest_record(int n) {
    PCFile_data_stream stream;
    _file_bytes = 0;
    if (stream.open_read(file_name(n).text, open_attempts) != PCFile_data_stream::done) return 0;
    Vorn_parser parser(&stream, false);
    unsigned newest = 0;
    unsigned char packet[300];
    int length;
    while (parser.get_packet(packet, sizeof packet, length)) {
        const Msg_SP record(Vorn_message(packet, static_cast<unsigned>(length)));
        Vorn_message frame(record);
        if (frame.validate(Diagnostics_messages::id_SP) && record.time() > newest) newest = record.time();
    }
    stream.drop_all();
    while (stream.bytes_avail(1)) stream.drop_all();
    _file_bytes = stream.bytes_read;
    stream.close_read();
    return newest;
}

// ---- replay

bool Diagnostics::request_history(Diagnostic_history* sink) {
    lock(-1);
    const bool accepted = _request_history(sink);
    unlock();
    return accepted;
}

bool Diagnostics::_request_history(Diagnostic_history* sink) {
    if (_current || !sink || !_enabled) return false;
    if (PCFile_data_stream::mounted()) find_current_file();
    _current = sink;
    sink->_done = false;
    sink->_records_done = 0;
    submit_timeout(sink->timeout, Atime::now());
    sink->_end_file = inc_file_num(_write_file);
    sink->_start_file = inc_file_num(sink->_end_file);
    sink->history_started();
    return true;
}

void Diagnostics::handle_timeout(Timeout& t) {
    if (_current && &t == &_current->timeout) process_history();
}

void Diagnostics::resume_later() { submit_timeout(_current->timeout, resume_ms); }

void Diagnostics::process_history() {
    if (!_current) return;
    if (!_current->check_ready()) return resume_later();
    while (_current->_start_file != _current->_end_file) {
        if (PCFile_data_stream::exists(file_name(_current->_start_file).text)) {
            Progress progress;
            if (!read_file(_current->_start_file, progress) || progress == progress_paused) return resume_later();
        }
        _current->_start_file = inc_file_num(_current->_start_file);
        _current->_records_done = 0;
    }
    finish_replay();
}

/// Hand out the records of one file; false when it cannot be opened now. It is closed on every way out: a stream that
/// dies open ends the process.
bool Diagnostics::read_file(int n, Progress& progress) {
    const File_name name = file_name(n);
    PCFile_data_stream stream;
    const int error = stream.open_read(name.text, open_attempts);
    if (error != PCFile_data_stream::done) {
        if (debug_on()) Debug_print::dprint("Could not open file %d: %s\r\n", error, name.text);
        return false;
    }
    Vorn_parser parser(&stream, false);
    progress = process_history(parser);
    stream.close_read();
    return true;
}

Diagnostics::Progress Diagnostics::process_history(Vorn_parser& parser) {
    unsigned char packet[300];
    int number = 0; // of valid records so far
    while (const int length = parser.get_packet(packet, sizeof packet)) {
        if (length < 0) continue; // a line of text
        Vorn_message frame(packet, static_cast<unsigned>(length));
        if (!frame.validate(Diagnostics_messages::id_SP)) continue;
        if (number++ < _current->_records_done) continue; // handed out before a pause
        _current->_records_done = number;

        const Msg_SP record(frame);
        if (debug_on())
            Debug_print::dprint("Hist Msg %x %x %x %x %x\n", static_cast<unsigned>(record.src()),
                                static_cast<unsigned>(record.a()), static_cast<unsigned>(record.b()), record.time(),
                                static_cast<unsigned>(record.ms()));
        if (record.time() == 0) continue;
        _current->_output(record.src(), record.a(), record.b(), record.time(), record.ms());
        if (!_current->check_ready()) return progress_paused;
    }
    return progress_finished;
}

void Diagnostics::finish_replay() {
    static Debug_print_diagnostic_history& echo = *new Debug_print_diagnostic_history;
    Diagnostic_history* const sink = _current;
    sink->_done = true;
    sink->history_finished();
    _current = nullptr;
    if (debug_on() && sink != &echo) _request_history(&echo);
}
