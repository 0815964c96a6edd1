// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_grow_message.h"
#include "glue/jin/JIN_stack.h"
#include "util/api.h"
#include <functional>

/// How requests for one PGN are answered.
struct Request_answer {
    enum Kind : uint8_t {
        data,     ///< a message is sent
        action,   ///< something is done at once, and acknowledged to the one who asked
        elsewhere ///< another part of the program answers; nothing is said
    };
    /// Builds the message (`data`; it is empty, with room for JIN::max_length; PGN, destination and priority are set
    /// already), or does what is asked for (`action`). False: refused.
    using Handler = std::function<bool(JIN_grow_message& m)>;

    Kind kind = elsewhere;
    Handler handler;
};

/// What a node answers to requests: one table of PGNs, and the answers that are due, oldest first. An answer is built
/// at the instant it is sent; what waits is who is to get which. No lock: its owner's.
///
/// Who gets an answer: all when all were asked, when the answer fits one frame of a PGN without destination, or when
/// the asker has no address; else the one who asked. Acknowledgments go to all and name who is meant. A request to all
/// is never refused.
class KAV_INTERNAL Request_answers {
public:
    static constexpr unsigned max_rows = 48;
    static constexpr unsigned max_due = 64; ///< answers that wait; more are dropped and counted

    /// Answer requests for a PGN from now on, in place of what it may have had. False when the table is full.
    bool set(uint32_t pgn, Request_answer answer);
    void remove(uint32_t pgn);
    /// Whether requests to this node for PGNs that are not in the table are refused with a message, as they should be
    /// by one part of a program.
    void set_refuses_others(bool on) { _refuses_others = on; }

    /// Take in a message of JIN::pgn_request; other messages and senders that cannot be are ignored.
    void request(const JIN_message& m);
    /// Have 8 bytes sent as they are: an answer that is no answer to a request.
    void send(uint32_t pgn, uint8_t destination, const unsigned char (&bytes)[8]);

    /// Send what is due. False when something is left because the stack was busy.
    bool pump(JIN_stack& stack);
    unsigned num_due() const { return _num_due; }
    uint32_t dropped() const { return _dropped; } ///< there were too many, or the stack refused them

private:
    struct Row {
        uint32_t pgn;
        Request_answer answer;
    };
    struct Due {
        bool ready;          ///< the bytes are what is sent; else the table's row of the PGN builds it
        uint8_t destination; ///< who asked, or JIN::global
        uint32_t pgn;
        unsigned char bytes[8];
    };
    Row* find(uint32_t pgn);
    static Due acknowledgment(unsigned control, uint8_t asker, uint32_t pgn);
    void enqueue(const Due& due);
    bool build(const Due& due);
    bool build_or_refuse(Due& due);

    Row _rows[max_rows];
    unsigned _num_rows = 0;
    Due _due[max_due];
    unsigned _num_due = 0;
    uint32_t _dropped = 0;
    bool _refuses_others = true;
    JIN_grow_message _message{0, JIN::max_length};
};
