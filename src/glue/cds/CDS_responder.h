// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_frame.h"
#include "glue/cds/CDS_remote.h"
#include "util/api.h"
#include <functional>

namespace CDS {
class Lookup_item;
class Lookup_root;

namespace Remote {

/// Whether a client may give an item this value, which is of the right length: `value` pops it, an array's behind its
/// number of elements. Called by the thread that answers, under the head's lock: it neither takes that nor waits.
using Write_rule = std::function<bool(const Lookup_item& item, Receive_buffer value)>;

/// Answers one client's requests: bytes in, bytes out, any bytes are safe. It knows nothing of lines and threads; one
/// thread at a time. The head's lock is taken while values are read or written; when it cannot be had in time, the
/// answer says so: who looks at a controller that hangs shall not hang with it. Takes 4 KB; allocates nothing.
class KAV_API Responder {
public:
    enum Step {
        waiting = 0,  ///< for the rest of a request, or until the answer before has been sent
        answered = 1, ///< there is an answer to be sent
        malformed = 2 ///< what came is no request: forget() it, or end the client
    };

    static constexpr int lock_ms = 500; ///< [ms] that the head's lock is waited for

    /// The tree and the rule outlive it. A rule that is empty allows nothing.
    Responder(Lookup_root& root, const Write_rule& rule) : _root(root), _rule(rule) {}

    /// Where what was received goes, room() [bytes] at most; then received() is told how many. There is room for a
    /// request, unless one has come and was not answered.
    char* place() { return _in + _num_in; }
    int room() const { return Frame::max_size - _num_in; }
    void received(int n) { _num_in += n; }
    int num_received() const { return _num_in; } ///< [bytes] of requests that were not answered yet
    void forget() { _num_in = 0; }

    /// Answer the next request that has come.
    Step step();

    /// What is to be sent; then sent() is told how much of it was. [bytes]
    const char* pending() const { return _out + _num_sent; }
    int num_pending() const { return _num_out - _num_sent; }
    void sent(int n) { _num_sent += n; }
    /// Say why nothing is answered; before the first request.
    void refuse(Frame::Refusal reason);

private:
    void answer(const Frame& request, Frame& reply, Send_buffer& out);
    void describe(Receive_buffer in, Send_buffer& out);
    // With the head's lock:
    void answer_locked(const Frame& request, Send_buffer& out);
    void read_values(Receive_buffer in, Send_buffer& out);
    Frame::Write_result write_value(Receive_buffer in, char* scratch);

    Lookup_root& _root;
    const Write_rule& _rule;
    int _num_in = 0, _num_out = 0, _num_sent = 0; ///< [bytes]
    char _in[Frame::max_size];
    char _out[Frame::max_size];
};

} // namespace Remote
} // namespace CDS
