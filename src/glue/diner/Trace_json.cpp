// SPDX-License-Identifier: MIT
#include "glue/diner/Trace_json.h"
#include "util/ticks.h"
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t max_name = 64; ///< [characters] of a program's own names

/// As the status table calls them.
constexpr const char* state_names[] = {"Run", "Stoping", "Stop", "Uninit", "Term", "Unknown"};
const char* state_name(uint32_t state) { return state_names[std::min(state, uint32_t{5})]; }

int32_t as_signed(uint64_t bits) { return static_cast<int32_t>(static_cast<uint32_t>(bits)); }
int16_t module_of(const Trace_record& r) { return static_cast<int16_t>(static_cast<uint16_t>(r.small >> 16)); }
int32_t id_of(const Trace_record& r) { return as_signed(r.large >> 32); }
uint16_t node_of(const Trace_record& r) { return static_cast<uint16_t>(r.large >> 16); }

/// The name that the system knows a thread by; empty when it has ended.
void name_of_task(uint32_t id, char (&name)[16]) {
    char path[40] = "/proc/self/task/", digits[12];
    size_t n = 0;
    do {
        digits[n++] = static_cast<char>('0' + id % 10);
        id /= 10;
    } while (id);
    size_t at = strlen(path);
    while (n > 0) path[at++] = digits[--n];
    memcpy(path + at, "/comm", 6);
    name[0] = 0;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    const ssize_t length = read(fd, name, sizeof name - 1);
    close(fd);
    name[std::max<ssize_t>(length, 0)] = 0;
    if (char* const end = strchr(name, '\n')) *end = 0;
}

} // namespace

Trace_json::Scale::Scale() : _ticks(Util::ticks()), _ns(Util::ns_of_ticks(_ticks)), _ns_per_tick(Util::ns_per_tick()) {}

int64_t Trace_json::Scale::ns(uint64_t ticks) const {
    return _ns + static_cast<int64_t>(static_cast<double>(static_cast<int64_t>(ticks - _ticks)) * _ns_per_tick);
}

bool Trace_json::write(const Trace_ring* ring, uint64_t last) {
    const uint64_t end = ring ? ring->end() : 0;
    uint64_t at = ring ? ring->begin(end) : 0;
    if (end - at > last) at = end - last;
    text("[\n");
    begin(ring ? ring->counts() : Trace::Counts(), end - at);
    for (Trace_record r; at < end && !_failed; ++at)
        if (ring->read(at, r)) write_record(r);
    text("\n]\n");
    flush();
    return !_failed;
}

void Trace_json::begin(const Trace::Counts& counts, uint64_t kept) {
    open_metadata("kavqtglue_trace", 0);
    argument("format", 1);
    argument("recorded", static_cast<int64_t>(counts.recorded));
    argument("kept", static_cast<int64_t>(kept));
    argument("dropped", static_cast<int64_t>(counts.dropped));
    close();
}

void Trace_json::write_record(const Trace_record& r) {
    Thread* const t = thread(r.thread);
    if (t && !nest(*t, r)) return;
    switch (r.kind) {
    case Trace::event_posted:
    case Trace::event_merged:
    case Trace::event_dropped:
    case Trace::event_refused:
        return write_post(r);
    case Trace::handler_begin:
    case Trace::timeout_begin:
    case Trace::handler_end:
        return write_handler(r);
    case Trace::timeout_submitted:
    case Trace::state_changed:
        return write_diner_event(r);
    default:
        return write_other(r);
    }
}

/// Keep account of what is open on a thread, whose handlers run one after the other. False for an end without a begin:
/// that was overwritten, or not recorded.
bool Trace_json::nest(Thread& t, const Trace_record& r) {
    switch (r.kind) {
    case Trace::handler_begin:
    case Trace::timeout_begin:
        if (t.handler >= 0) end_lost(t, r, t.handler);
        t.handler = t.depth++;
        return true;
    case Trace::handler_end:
        if (t.handler < 0) return false;
        end_lost(t, r, t.handler + 1);
        t.depth = t.handler;
        t.handler = -1;
        return true;
    case Trace::span_begin:
        ++t.depth;
        return true;
    case Trace::span_end:
        if (t.depth == (t.handler >= 0 ? t.handler + 1 : 0)) return false;
        --t.depth;
        return true;
    default:
        return true;
    }
}

/// What is open above a depth has ended, nobody knows when: it was not recorded.
void Trace_json::end_lost(Thread& t, const Trace_record& r, int32_t depth) {
    for (; t.depth > depth; --t.depth) {
        open(r, 'E');
        argument("lost", 1);
        close();
    }
}

/// A post is a slice, however short, since arrows begin at slices only.
void Trace_json::write_post(const Trace_record& r) {
    static constexpr const char* verbs[] = {"post to ", "merged for ", "dropped for ", "refused by "};
    const bool queued = r.kind == Trace::event_posted;
    open(r, queued ? 'X' : 'i');
    text(queued ? ",\"dur\":0.001" : ",\"s\":\"t\"");
    key("name");
    put('"');
    text(verbs[r.kind - Trace::event_posted]);
    quoted(_names.name(r.diner), max_name);
    put('"');
    text(",\"cat\":\"post\"");
    diner_argument(r);
    argument("module", module_of(r));
    argument("id", id_of(r));
    if (queued) {
        argument("node", node_of(r));
        argument("queue", static_cast<uint16_t>(r.small));
        argument("free", static_cast<uint16_t>(r.large));
    }
    close();
    if (!queued) return;
    flow(r, 's');
    _posted[r.diner] = node_of(r);
    _posted_known[r.diner] = true;
    queue_length(r, static_cast<uint16_t>(r.small));
    open(r, 'C');
    text(",\"name\":\"free event nodes\"");
    argument("nodes", static_cast<uint16_t>(r.large));
    close();
}

void Trace_json::write_handler(const Trace_record& r) {
    if (r.kind == Trace::handler_end) {
        open(r, 'E');
        return close();
    }
    const bool event = r.kind == Trace::handler_begin;
    open(r, 'B');
    key("name");
    put('"');
    quoted(_names.name(r.diner), max_name);
    if (event) {
        put(' ');
        number(module_of(r));
        put('/');
        number(id_of(r));
    } else {
        text(" timeout");
    }
    put('"');
    text(event ? ",\"cat\":\"event\"" : ",\"cat\":\"timeout\"");
    diner_argument(r);
    if (event) {
        argument("module", module_of(r));
        argument("id", id_of(r));
        argument("node", node_of(r));
    } else {
        argument("uid", as_signed(r.large));
        argument("late_ms", as_signed(r.small));
    }
    close();
    if (!event || node_of(r) == 0) return;
    flow(r, 'f');
    if (_posted_known[r.diner]) queue_length(r, static_cast<uint16_t>(_posted[r.diner] - node_of(r)));
}

void Trace_json::write_diner_event(const Trace_record& r) {
    open(r, 'i');
    text(",\"s\":\"t\",\"cat\":\"diner\"");
    key("name");
    put('"');
    quoted(_names.name(r.diner), max_name);
    const bool state = r.kind == Trace::state_changed;
    put(' ');
    text(state ? state_name(r.small & 0xFFFF) : "waits for a timeout");
    put('"');
    diner_argument(r);
    if (state) {
        argument("from", state_name(r.small >> 16));
    } else {
        argument("uid", as_signed(r.large));
        if (as_signed(r.small) != INT32_MIN) argument("in_ms", as_signed(r.small));
    }
    close();
}

void Trace_json::write_other(const Trace_record& r) {
    if (r.kind == Trace::span_end) {
        open(r, 'E');
        return close();
    }
    open(r, r.kind == Trace::span_begin ? 'B' : 'i');
    if (r.kind != Trace::span_begin) text(",\"s\":\"t\"");
    key("name");
    put('"');
    switch (r.kind) {
    case Trace::bytes_arrived:
    case Trace::bytes_lost: {
        char name[9] = {};
        memcpy(name, &r.large, 8);
        text(r.kind == Trace::bytes_arrived ? "bytes " : "bytes lost ");
        quoted(name, sizeof name);
        text("\",\"cat\":\"stream\"");
        argument("bytes", r.small);
        break;
    }
    case Trace::range_signalled:
        text("range changed\",\"cat\":\"store\"");
        argument("offset", as_signed(r.large >> 32));
        argument("size", as_signed(r.large));
        break;
    case Trace::setting_changed:
        text("setting changed\",\"cat\":\"settings\"");
        argument("id", r.small);
        argument("in", as_signed(r.large));
        break;
    default: // a program's own
        quoted(reinterpret_cast<const char*>(static_cast<uintptr_t>(r.large)), max_name);
        text("\",\"cat\":\"program\"");
        argument("number", as_signed(r.small));
        break;
    }
    close();
}

void Trace_json::queue_length(const Trace_record& r, uint16_t length) {
    open(r, 'C');
    text(",\"name\":\"queue ");
    quoted(_names.name(r.diner), max_name);
    put('"');
    argument("events", length);
    close();
}

/// The arrow from a post to its handler: both know the number of the node.
void Trace_json::flow(const Trace_record& r, char phase) {
    open(r, phase);
    text(",\"name\":\"event\",\"cat\":\"event\",\"id\":");
    number(int64_t{r.diner} << 16 | node_of(r));
    if (phase == 'f') text(",\"bp\":\"e\"");
    close();
}

/// Null when there are more threads than the table holds; the first record of each brings its name.
Trace_json::Thread* Trace_json::thread(uint32_t id) {
    for (size_t i = 0; i < _num_threads; ++i)
        if (_threads[i].id == id) return &_threads[i];
    if (_num_threads == max_threads) return nullptr;
    Thread* const added = &_threads[_num_threads++];
    *added = {id, 0, -1};
    char task[16];
    name_of_task(id, task);
    const char* const diner = _names.name_of_thread(id);
    if (task[0] || diner) {
        open_metadata("thread_name", id);
        argument("name", diner ? diner : task);
        close();
    }
    return added;
}

void Trace_json::open(const Trace_record& r, char phase) {
    if (!_first) text(",\n");
    _first = false;
    text("{\"ph\":\"");
    put(phase);
    text("\",\"pid\":");
    number(getpid());
    text(",\"tid\":");
    number(r.thread);
    text(",\"ts\":");
    micros(_scale.ns(r.ticks));
}

void Trace_json::open_metadata(const char* name, uint32_t thread) {
    if (!_first) text(",\n");
    _first = false;
    text("{\"ph\":\"M\",\"pid\":");
    number(getpid());
    text(",\"tid\":");
    number(thread ? thread : static_cast<uint32_t>(getpid()));
    key("name");
    put('"');
    text(name);
    put('"');
}

void Trace_json::key(const char* name) {
    text(",\"");
    text(name);
    text("\":");
}

void Trace_json::argument(const char* name, int64_t value) {
    text(_in_arguments ? ",\"" : ",\"args\":{\"");
    _in_arguments = true;
    text(name);
    text("\":");
    number(value);
}

void Trace_json::argument(const char* name, const char* value) {
    text(_in_arguments ? ",\"" : ",\"args\":{\"");
    _in_arguments = true;
    text(name);
    text("\":\"");
    quoted(value, max_name);
    put('"');
}

void Trace_json::close() {
    if (_in_arguments) put('}');
    _in_arguments = false;
    put('}');
    if (_used > sizeof _buffer - max_event) flush();
}

void Trace_json::text(const char* s) {
    while (*s) put(*s++);
}

/// Escaped; bytes that are no ASCII may be half of a character, which a viewer would refuse with all the rest.
void Trace_json::quoted(const char* s, size_t most) {
    for (size_t i = 0; s && s[i] && i < most; ++i) {
        const char c = s[i];
        if (c == '"' || c == '\\') put('\\');
        put(c >= 0x20 && c < 0x7F ? c : '?');
    }
}

void Trace_json::number(int64_t value) {
    char digits[20];
    size_t n = 0;
    uint64_t rest = static_cast<uint64_t>(value);
    if (value < 0) {
        put('-');
        rest = 0 - rest;
    }
    do {
        digits[n++] = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest);
    while (n > 0) put(digits[--n]);
}

void Trace_json::micros(int64_t ns) {
    number(ns / 1000);
    const int64_t rest = ns < 0 ? 0 : ns % 1000;
    put('.');
    put(static_cast<char>('0' + rest / 100));
    put(static_cast<char>('0' + rest / 10 % 10));
    put(static_cast<char>('0' + rest % 10));
}

void Trace_json::flush() {
    if (_used && !_failed) _failed = !_sink(_to, _buffer, _used);
    _used = 0;
}
