// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Request_answers.h"
#include "glue/diagnostics/Trouble_code_messages.h"
#include <cstring>
#include <utility>

using Acknowledgment = Trouble_code_messages::Msg_acknowledgment;

Request_answers::Row* Request_answers::find(uint32_t pgn) {
    for (unsigned i = 0; i < _num_rows; ++i)
        if (_rows[i].pgn == pgn) return &_rows[i];
    return nullptr;
}

bool Request_answers::set(uint32_t pgn, Request_answer answer) {
    Row* row = find(pgn);
    if (!row && _num_rows == max_rows) return false;
    if (!row) row = &_rows[_num_rows++];
    *row = {pgn, std::move(answer)};
    return true;
}

void Request_answers::remove(uint32_t pgn) {
    Row* const row = find(pgn);
    if (!row) return;
    Row& last = _rows[--_num_rows];
    std::swap(*row, last);
    last.answer.handler = nullptr; // what it has captured goes now
}

void Request_answers::request(const JIN_message& m) {
    uint32_t pgn;
    if (m.source == JIN::global || !m.get_requested_pgn(pgn)) return;
    const bool to_all = m.destination == JIN::global;
    Row* const row = find(pgn);
    if (!row) {
        if (!to_all && _refuses_others) enqueue(acknowledgment(Acknowledgment::nack, m.source, pgn));
        return;
    }
    if (row->answer.kind == Request_answer::action) {
        _message.clear();
        const bool done = row->answer.handler(_message);
        if (!to_all) enqueue(acknowledgment(done ? Acknowledgment::ack : Acknowledgment::nack, m.source, pgn));
    } else if (row->answer.kind == Request_answer::data) {
        enqueue({false, to_all ? JIN::global : m.source, pgn, {}});
    }
}

void Request_answers::send(uint32_t pgn, uint8_t destination, const unsigned char (&bytes)[8]) {
    Due due{true, destination, pgn, {}};
    memcpy(due.bytes, bytes, sizeof bytes);
    enqueue(due);
}

Request_answers::Due Request_answers::acknowledgment(unsigned control, uint8_t asker, uint32_t pgn) {
    Due due{true, JIN::global, JIN::pgn_acknowledgement, {}};
    Binary_message m(due.bytes, sizeof due.bytes);
    build_acknowledgment(m, static_cast<Acknowledgment::Control>(control), asker, pgn);
    return due;
}

/// Who asks again before it was answered gets one answer.
void Request_answers::enqueue(const Due& due) {
    for (unsigned i = 0; i < _num_due; ++i) {
        const Due& other = _due[i];
        if (other.ready == due.ready && other.destination == due.destination && other.pgn == due.pgn &&
            memcmp(other.bytes, due.bytes, sizeof due.bytes) == 0)
            return;
    }
    if (_num_due == max_due) {
        ++_dropped;
        return;
    }
    _due[_num_due++] = due;
}

/// The message of what is due; false when there is none.
bool Request_answers::build(const Due& due) {
    _message.pgn = due.pgn;
    _message.destination = due.destination == JIN::no_address ? JIN::global : due.destination;
    _message.priority = JIN::default_priority;
    _message.clear();
    if (due.ready) return _message.append(due.bytes, sizeof due.bytes);
    const Row* const row = find(due.pgn);
    if (!row || row->answer.kind != Request_answer::data || !row->answer.handler(_message)) return false;
    if (_message.size <= Trouble_code_messages::single_frame && !JIN::is_addressable(due.pgn))
        _message.destination = JIN::global;
    return true;
}

/// The same; who asked this node alone gets a refusal in place of nothing.
bool Request_answers::build_or_refuse(Due& due) {
    if (build(due)) return true;
    if (due.ready || due.destination == JIN::global) return false;
    due = acknowledgment(Acknowledgment::nack, due.destination, due.pgn);
    return build(due);
}

bool Request_answers::pump(JIN_stack& stack) {
    unsigned kept = 0;
    bool full = false;
    for (unsigned i = 0; i < _num_due; ++i) {
        Due due = _due[i];
        JIN_stack::Result result = JIN_stack::busy;
        if (!full) {
            if (!build_or_refuse(due)) continue;
            result = stack.send(_message);
            if (result == JIN_stack::refused) ++_dropped;
            if (result != JIN_stack::busy) continue;
            // A long one waits for another long one, and short ones pass it. Where a short one waits, all do.
            full = _message.size <= Trouble_code_messages::single_frame;
        }
        _due[kept++] = due;
    }
    _num_due = kept;
    return kept == 0;
}
