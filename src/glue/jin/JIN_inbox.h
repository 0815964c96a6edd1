// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/waiter_ref.h"
#include "glue/jin/JIN_grow_message.h"
#include "glue/jin/JIN_stack.h"
#include "util/Ring_buffer.h"
#include "util/api.h"
#include "util/sl_list.h"
#include <initializer_list>
#include <memory>

/// A client's queue of received messages: those of the PGNs that it wants, for all or for this node.
///
///     JIN_inbox inbox(stack, &waiter, {JIN::pgn_request, pgn_dm1});
///     ...
///     if (event.module_id == stack.module_id() && event.id == JIN_stack::event_arrived)
///         while (inbox.receive(message)) ...
///
/// What the node itself sends does not come in. Messages keep their order; one that does not fit is lost and counted,
/// those that wait stay. One thread receives.
class KAV_API JIN_inbox : public sll_node {
public:
    static constexpr int max_pgns = 32;
    static constexpr uint32_t default_bytes = 8192; ///< four of the longest messages, or 400 of 8 bytes
    static constexpr uint32_t overhead = 12;        ///< [bytes] that each message takes beside its own

    /// What comes in, beside the choice of PGNs.
    enum Reach {
        for_this_node, ///< what is for all, or for the address that is claimed
        /// Also what other nodes say to each other; of that JIN_socket_stack has only what fits into one frame.
        everything
    };

    /// `waiter` gets event_arrived; null: nobody. An empty list of `pgns` stands for all, and so does one of more than
    /// 32. Room for `bytes` is taken from the heap here; without memory everything is lost and counted.
    JIN_inbox(JIN_stack& stack, waiter_descriptor* waiter, std::initializer_list<uint32_t> pgns,
              uint32_t bytes = default_bytes, Reach reach = for_this_node);
    ~JIN_inbox();
    JIN_inbox(const JIN_inbox&) = delete;
    JIN_inbox& operator=(const JIN_inbox&) = delete;

    /// The oldest message, copied into `m`; false when there is none, or no memory to make `m` that long (the message
    /// then stays). Drained until false, since one event stands for many messages.
    bool receive(JIN_grow_message& m);
    uint32_t lost() const; ///< messages so far

private:
    friend class JIN_stack;
    struct Head {
        uint32_t pgn;
        uint16_t length;
        uint8_t source, destination, priority;
    };
    static_assert(sizeof(Head) <= overhead, "what the queue adds to a message");

    bool wants(const JIN_message& m, bool for_this) const;
    void put(const JIN_message& m) KAV_REQUIRES(_stack.lock);
    void is_of_this_stack() const KAV_ASSERT_CAPABILITY(_stack.lock) {} ///< which calls it with its lock held

    JIN_stack& _stack;
    const waiter_ref<waiter_ref_base::stream> _waiter; ///< null when there is none, or none any more
    const Reach _reach;
    int _num_pgns = 0;
    uint32_t _pgns[max_pgns];
    std::unique_ptr<unsigned char[]> _bytes;
    Ring_buffer _queue KAV_GUARDED_BY(_stack.lock);
    uint32_t _lost KAV_GUARDED_BY(_stack.lock) = 0;
};
