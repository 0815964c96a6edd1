// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Timeout.h"
#include "glue/jin/JIN_grow_message.h"
#include "glue/jin/JIN_stack.h"
#include "util/api.h"
#include <bitset>

class Diner;
class waiter_event;

namespace JIN {

/// What JIN::Transmission has whatever its messages are.
class KAV_API Transmission_base {
public:
    static constexpr int retry_ms = 50;             ///< [ms] after a send that was busy, unless event_room comes before
    static constexpr int no_address_retry_ms = 500; ///< [ms] the same while the node has no address

    virtual ~Transmission_base();
    Transmission_base(const Transmission_base&) = delete;
    Transmission_base& operator=(const Transmission_base&) = delete;

    /// Send every `ms` [ms] to all, for the first time at once; 0 and less: no longer. A period that passes while the
    /// stack is busy is left out.
    void set_period(int ms);
    /// Send once, now if the stack takes it. To one node, or to all. What is asked for again before it went out goes
    /// out once.
    void request(uint8_t destination = global);
    /// Forget what was requested or is due and did not go out.
    void withdraw() { _due.reset(); }
    bool is_due() const { return _due.any(); } ///< something waits for room

    // The diner's handlers call these first.

    /// True when the timeout was this transmission's.
    bool handle(Timeout& t);
    /// Tries again when the event says that there is room. False, so that other transmissions see the event as well.
    bool handle(const waiter_event& e);

    uint32_t sent() const { return _sent; }       ///< messages that the stack took
    uint32_t refused() const { return _refused; } ///< messages that it will never take: given up

protected:
    Transmission_base(Diner& diner, JIN_stack& stack);

    JIN_stack& stack;

private:
    /// Build and send to `destination`; taken when there is nothing to say.
    virtual JIN_stack::Result build_and_send(uint8_t destination) = 0;
    void send_due();

    Diner& _diner;
    std::bitset<256> _due; ///< a flag for each destination
    Timeout _period, _retry;
    uint32_t _sent = 0, _refused = 0;
};

/// A message that a diner sends periodically, on request, or both. It is built at the instant of sending, never before:
/// while the bus is busy there is a flag for each destination, and what goes out in the end is what is true then.
///
/// A subclass says what is in it. All members belong to the diner's thread or are called under its lock. For a quick
/// retry the diner's waiter is registered with the stack.
///
///     class Speed : public JIN::Transmission<JIN_grow_message> {
///         bool build(JIN_grow_message& m, uint8_t) override { return m.append_uint16_le(speed); }
template <class M>
class Transmission : public Transmission_base {
public:
    /// Messages get this PGN and priority. `room` [bytes] are taken from the heap now.
    Transmission(Diner& diner, JIN_stack& s, uint32_t pgn, uint32_t room = 8, uint8_t priority = default_priority)
        : Transmission_base(diner, s), _message(pgn, room), _pgn(pgn), _priority(priority) {}

protected:
    /// Put the bytes into `m`, which is empty and has its destination. False: there is nothing to say now.
    virtual bool build(M& m, uint8_t destination) = 0;

private:
    JIN_stack::Result build_and_send(uint8_t destination) final {
        _message.clear();
        _message.pgn = _pgn;
        _message.priority = _priority;
        _message.destination = destination;
        return build(_message, destination) ? stack.send(_message) : JIN_stack::taken;
    }

    M _message;
    const uint32_t _pgn;
    const uint8_t _priority;
};

} // namespace JIN
