// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Diagnostics.h"
#include "glue/NV_store/Safe_file.h"
#include "glue/diagnostics/Diagnostics_bus.h"
#include "glue/diagnostics/Diagnostics_messages.h"
#include "glue/diagnostics/Request_answers.h"
#include "glue/diner/module_man.h"
#include "glue/vorn/Vorn_parser.h"
#include "util/Debug_base.h"
#include "util/Debug_print.h"
#include <algorithm>
#include <cstdio>
#include <cstring>

using Diagnostics_messages::Msg_SP;

namespace {

constexpr int open_attempts = 5;
constexpr unsigned record_size = Msg_SP::size_total + 1; // [bytes] with its line feed
/// As many line ends as a frame with its own has bytes: whatever a torn record still waits for, these satisfy it, and
/// the record behind them is met whole.
constexpr unsigned most_closing_line_feeds = record_size;

/// Event ids beyond those of records, which are source addresses.
constexpr int event_resume = 0x100;

bool debug_on() { return Debug_filter::enabled(_JDB::jdb_diagnostics); }

/// Repeats replays on the debug output; one for all managers.
Debug_print_diagnostic_history& echo() {
    static Debug_print_diagnostic_history& instance = *new Debug_print_diagnostic_history;
    return instance;
}

} // namespace

Diagnostics::Diagnostics(const char* base_name, unsigned max_file_bytes, unsigned max_codes)
    : _codes(max_codes)
    , _answers(std::make_unique<Request_answers>())
    , _enabled(strlen(base_name) <= longest_base_name)
    , _max_file_bytes(max_file_bytes) {
    snprintf(_base_name, sizeof _base_name, "%s", base_name);
    if (!_enabled)
        Debug_print::bprint("Diagnostics: base name %s is longer than %d characters\n", base_name, longest_base_name);
}

Diagnostics::~Diagnostics() {
    if (state.load(std::memory_order_acquire) != state_uninit) terminate(true);
}

int Diagnostics::init(module_man& mm, Diner_selector* s, int thread_priority) {
    if (mm.init_module(&_module_id, true) != 0) _enabled = false;
    return init(mm, s, Descriptor("DIAG", 0), thread_priority, 256, false, false);
}

/// A stop has dropped the timeouts: of a replay that was going on, and those of the codes.
void Diagnostics::diner_start() {
    submit_timeout(_pass, Atime::now());
    if (_enabled) waiter.send_event(waiter_event(_module_id, event_resume, 0), waiter_descriptor::drop_duplicates);
}

Diagnostics::File_name Diagnostics::file_name(int n) const {
    File_name name;
    snprintf(name.text, sizeof name.text, "%s%d.dat", _base_name, n);
    return name;
}

// ---- writing

bool Diagnostics::log_error(unsigned char src, unsigned short a, unsigned short b) {
    if (!_enabled || !waiter.accepting()) return false;
    const auto words = static_cast<unsigned>(a) | static_cast<unsigned>(b) << 16;
    return waiter.send_event(waiter_event(_module_id, src, words)) == 0;
}

void Diagnostics::handle_event(waiter_event& event) {
    if (_bus && _bus->handle(event)) return pass();
    if (event.module_id != _module_id) return;
    const auto words = static_cast<unsigned>(event.data);
    if (event.id != event_resume)
        store(static_cast<unsigned char>(event.id), static_cast<unsigned short>(words),
              static_cast<unsigned short>(words >> 16), Atime::now());
    else if (_current && !submitted(_current->timeout))
        submit_timeout(_current->timeout, Atime::now());
}

void Diagnostics::store(unsigned char src, unsigned short a, unsigned short b, const Atime& when) {
    unsigned char record[record_size];
    Diagnostics_messages::build_SP(record, src, a, b, static_cast<unsigned>(when.time), when.millitm);
    record[Msg_SP::size_total] = '\n';

    if (PCFile_data_stream::mounted() && append(record)) {
        ++_written;
        return;
    }
    ++_lost;
    if (waiter_descriptor* w = _lost_waiter)
        w->send_event(waiter_event(_module_id, event_lost, 0), waiter_descriptor::drop_duplicates);
}

unsigned Diagnostics::closing_line_feeds() const {
    return _maybe_torn && _file_bytes > 0 ? most_closing_line_feeds : 0;
}

/// Append a record to the current file, behind the line feeds that close off what may be torn there.
bool Diagnostics::append(const unsigned char* record) {
    find_current_file();
    unsigned char bytes[most_closing_line_feeds + record_size];
    memset(bytes, '\n', most_closing_line_feeds);
    memcpy(bytes + most_closing_line_feeds, record, record_size);
    if (!make_room(closing_line_feeds() + record_size)) return false;
    const unsigned skipped = most_closing_line_feeds - closing_line_feeds(); // a file just begun needs none
    return write(bytes + skipped, static_cast<unsigned>(sizeof bytes) - skipped);
}

/// Write at the end of the current file; all of it or nothing counts.
bool Diagnostics::write(const unsigned char* bytes, unsigned n) {
    PCFile_data_stream stream;
    if (stream.open_write(file_name(_write_file).text, open_attempts) != PCFile_data_stream::done) return false;
    // Asked again now that nobody else can write: a write for which there is no room ends the process.
    unsigned used, size;
    const bool room = PCFile_data_stream::get_free_space(used, size) && size - used >= n;
    const bool complete = room && stream._write(bytes, n) == n;
    // A stream that could not write has closed itself.
    const bool closed = stream.is_open_write() && stream.close_write() == PCFile_data_stream::done;
    _maybe_torn = !complete || !closed;
    if (!_maybe_torn) _file_bytes += n;
    return !_maybe_torn;
}

/// Rotate until `n` bytes fit into the current file and the store.
bool Diagnostics::make_room(unsigned n) {
    if (_file_bytes + n > _max_file_bytes && !rotate()) return false;
    for (int i = 0; i < num_files; ++i) {
        unsigned used, size;
        if (!PCFile_data_stream::get_free_space(used, size)) return false;
        if (size - used >= n + store_reserve) return true;
        if (!rotate()) return false;
    }
    return false;
}

/// Go on to the next file, which begins empty. The one behind it goes too: its absence marks the place.
bool Diagnostics::rotate() {
    const int next = inc_file_num(_write_file);
    if (!remove(next) || !remove(inc_file_num(next))) return false;
    _write_file = next;
    _file_bytes = 0;
    return true;
}

/// Remove a file; a replay that has come to it goes on behind it, since its number may soon stand for newer records.
bool Diagnostics::remove(int n) {
    if (exists(n) && !PCFile_data_stream::remove(file_name(n).text)) {
        Debug_print::dprint("Diagnostics: cannot remove %s\n", file_name(n).text);
        return false;
    }
    if (_current && _current->_start_file == n && n != _current->_end_file) {
        _current->_start_file = inc_file_num(n);
        _current->_records_done = 0;
    }
    return true;
}

int Diagnostics::find_current(const bool (&there)[num_files], uint64_t (*newest)(void* whose, int n), void* whose) {
    int candidates[num_files], count = 0;
    for (int n = 0; n < num_files; ++n)
        if (there[n] && !there[inc_file_num(n)]) candidates[count++] = n;
    if (count == 1) return candidates[0];
    if (count == 0) {
        if (!there[0]) return 0;
        for (; count < num_files; ++count) candidates[count] = count;
    }
    int found = candidates[0];
    uint64_t newest_time = newest(whose, found);
    for (int i = 1; i < count; ++i) {
        const uint64_t time = newest(whose, candidates[i]);
        if (time < newest_time || (time == newest_time && candidates[i] != inc_file_num(found))) continue;
        newest_time = time;
        found = candidates[i];
    }
    return found;
}

/// Find out, once, which file was being written. The store is mounted.
void Diagnostics::find_current_file() {
    if (_file_known) return;
    bool there[num_files];
    for (int n = 0; n < num_files; ++n) there[n] = exists(n);
    const auto newest = [](void* manager, int n) {
        unsigned ignored;
        return static_cast<const Diagnostics*>(manager)->newest_record(n, ignored);
    };
    _write_file = find_current(there, newest, this);
    if (there[_write_file]) newest_record(_write_file, _file_bytes);
    remove(inc_file_num(_write_file));
    _file_known = true;
}

/// [ms] the time of the newest record of a file, 0 without one, and the file's length. A file that cannot be read
/// counts as full, so that it grows no more.
uint64_t Diagnostics::newest_record(int n, unsigned& bytes) const {
    bytes = _max_file_bytes;
    PCFile_data_stream stream;
    if (stream.open_read(file_name(n).text, open_attempts) != PCFile_data_stream::done) return 0;
    Vorn_parser parser(&stream, false);
    uint64_t newest = 0;
    unsigned char packet[300];
    int length;
    while (parser.get_packet(packet, sizeof packet, length)) {
        const Vorn_message frame(packet, static_cast<unsigned>(length));
        if (frame.validate(Diagnostics_messages::id_SP)) newest = std::max(newest, Msg_SP(frame).time_ms());
    }
    do stream.drop_all();
    while (stream.bytes_avail(1));
    bytes = stream.bytes_read;
    stream.close_read();
    return newest;
}

// ---- replay

bool Diagnostics::request_history(Diagnostic_history* sink) {
    const Held held(*this);
    return _request_history(sink);
}

bool Diagnostics::_request_history(Diagnostic_history* sink) {
    if (_current || !sink || !_enabled) return false;
    if (PCFile_data_stream::mounted()) find_current_file();
    // Its timeout belongs to one manager while a replay runs.
    Diner* owner = nullptr;
    if (!sink->timeout.diner.compare_exchange_strong(owner, this) && owner != this) return false;
    _current = sink;
    submit_timeout(sink->timeout, Atime::now());
    sink->_done = false;
    sink->_records_done = 0;
    sink->_end_file = inc_file_num(_write_file);
    sink->_start_file = inc_file_num(sink->_end_file);
    sink->history_started();
    return true;
}

void Diagnostics::handle_timeout(Timeout& t) {
    if (_current && &t == &_current->timeout) return process_history();
    if (&t == &_save) {
        save();
    } else if (&t == &_pass || (_bus && _bus->handle(t))) {
        pass();
    }
}

void Diagnostics::resume_later() { submit_timeout(_current->timeout, resume_ms); }

void Diagnostics::process_history() {
    if (!_current) return;
    if (!_current->check_ready()) return resume_later();
    while (_current->_start_file != _current->_end_file) {
        if (exists(_current->_start_file)) {
            Progress progress;
            if (!read_file(_current->_start_file, progress)) return resume_later();
            if (progress == progress_paused) return;
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
    if (!_current) return progress_finished;
    unsigned char packet[300];
    int number = 0; // of valid records so far
    while (const int length = parser.get_packet(packet, sizeof packet)) {
        if (length < 0) continue; // a line of text
        const Vorn_message frame(packet, static_cast<unsigned>(length));
        if (!frame.validate(Diagnostics_messages::id_SP)) continue;
        if (number++ < _current->_records_done) continue; // handed out before a pause
        _current->_records_done = number;

        const Msg_SP record(frame);
        if (debug_on())
            Debug_print::dprint("Hist Msg %x %x %x %x %x\n", static_cast<unsigned>(record.src()),
                                static_cast<unsigned>(record.b()), static_cast<unsigned>(record.a()), record.time(),
                                static_cast<unsigned>(record.ms()));
        if (record.time() == 0) continue;
        _current->_output(record.src(), record.a(), record.b(), record.time(), record.ms());
        if (_current->check_ready()) continue;
        resume_later();
        return progress_paused;
    }
    return progress_finished;
}

/// The sink may be destroyed as soon as its finished hook is called.
void Diagnostics::finish_replay() {
    Diagnostic_history* const sink = _current;
    remove_timeout(sink->timeout);
    sink->_done = true;
    sink->history_finished();
    _current = nullptr;
    if (debug_on() && sink != &echo()) _request_history(&echo());
}
