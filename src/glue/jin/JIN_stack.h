// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/waiter_list.h"
#include "glue/jin/JIN_message.h"
#include "glue/jin/JIN_name.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/sl_list.h"
#include <atomic>

class JIN_inbox;

/// One node of a CAN bus with SAE J1939 and ISO 11783: sends and receives whole messages under the address that its
/// NAME has claimed. Below it are the kernel's sockets (JIN_socket_stack) or other nodes of the process
/// (JIN_memory_bus).
///
///     bus -> stack -> one JIN_inbox for each client whose PGNs match -> the client's diner
///                  -> the waiters registered here: room, address, bus
///
/// Several clients share a node: each opens an inbox of its own and misses nothing because of the others. Any of them
/// may send; the answer to a request is the business of whoever listens to pgn_request, so clients of one node divide
/// the PGNs among them.
///
/// Any thread may call any member. The lock is a stream's: taken under a diner's lock, never the other way round.
class KAV_API JIN_stack {
public:
    /// Event ids of the stack's module. Posted only when they are not queued yet, with data 0: they say that something
    /// is to be looked at, and state is asked for.
    enum Event {
        event_arrived = 0,      ///< something came into an inbox; to the inbox's waiter alone
        event_room = 1,         ///< after a send that was busy: it is worth trying again
        event_claimed = 2,      ///< the node has an address: to be remembered for the next start
        event_address_lost = 3, ///< another node won it, or the bus went; the stack tries to get one again
        event_no_address = 4,   ///< none can be had: NAMEs that win have all that this node could take
        event_bus_gone = 5,     ///< nothing can be sent or received; the stack tries again. trouble() says why
        event_bus_back = 6,
        event_violation = 7, ///< another node sends under our address; at most one each second
        event_transfer = 8   ///< a long message was not delivered, counted by transfers_failed()
    };
    /// What became of a message.
    enum Result {
        taken = 0,   ///< copied, and on its way
        busy = 1,    ///< not now: no room, no address or no bus. event_room follows
        refused = -1 ///< never: JIN_message::is_sendable() is false, or the node only listens
    };

    virtual ~JIN_stack(); ///< its inboxes are gone by then

    /// Send under the own address; `m.source` is not used. A message of more than 8 bytes goes out in packets, with 50
    /// ms between them when it is for all, and while one is under way the next is busy: one for all, one for a single
    /// node. Shorter ones pass it. Does not block.
    virtual Result send(const JIN_message& m) = 0;
    /// The address that is claimed: false, and `own` as it was, while there is none.
    virtual bool address(uint8_t& own) const = 0;
    virtual JIN_name name() const = 0;
    virtual bool bus_is_there() const = 0;
    /// The NAME that claimed `address`, the own one too, as far as it was heard; false for none.
    virtual bool name_of(uint8_t address, JIN_name& name) const = 0;
    /// Long messages that were given up so far. No lock.
    uint32_t transfers_failed() const { return _transfers_failed.load(std::memory_order_relaxed); }

    /// Who is told of all events but event_arrived. At most 16, not owned; deregistered before they die. 0, or -1 when
    /// full, null or already there (not there). What happened before is not told: ask address() and bus_is_there().
    int register_waiter(waiter_descriptor* w) { return _waiters.add(w); }
    int deregister_waiter(waiter_descriptor* w) { return _waiters.remove(w); }
    short module_id() const { return _waiters.module_id(); } ///< of the events

protected:
    /// `shared`: the lock, when it is somebody else's. Ends the process with exit(-132) when `mm` has no module id
    /// left.
    explicit JIN_stack(module_man& mm, Mutex* shared = nullptr);
    JIN_stack(const JIN_stack&) = delete;
    JIN_stack& operator=(const JIN_stack&) = delete;

    void deliver(const JIN_message& m, bool for_this_node) KAV_REQUIRES(lock); ///< into the inboxes that want it
    void tell(Event e) KAV_REQUIRES(lock);
    void transfer_failed() KAV_REQUIRES(lock);
    /// A send is busy; tell_room() will tell, once.
    Result say_busy() KAV_REQUIRES(lock) {
        _room_wanted = true;
        return busy;
    }
    void tell_room() KAV_REQUIRES(lock);
    /// The union of the inboxes' PGNs has changed.
    virtual void wishes_changed() KAV_REQUIRES(lock) {}
    /// The PGNs that the inboxes want: their number, at most `most` put into `pgns`; -1 when one wants all or more.
    int wishes(uint32_t* pgns, int most) const KAV_REQUIRES(lock);
    bool everything_wished() const KAV_REQUIRES(lock); ///< also what is meant for other nodes

    Mutex& lock;

private:
    friend class JIN_inbox;

    Mutex _own_lock;
    waiter_list _waiters{lock};
    c_sl_list<JIN_inbox> _inboxes KAV_GUARDED_BY(lock);
    bool _room_wanted KAV_GUARDED_BY(lock) = false;
    std::atomic<uint32_t> _transfers_failed{0};
};
