// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_address_claim.h"
#include "glue/jin/JIN_grow_message.h"
#include "glue/jin/JIN_stack.h"
#include "platform/Task.h"
#include "util/Mutex.h"
#include "util/Semaphore.h"
#include "util/api.h"
#include "util/sl_list.h"
#include <atomic>

/// A bus in memory: any number of nodes of one process, for tests, examples and simulations. What the kernel's sockets
/// do to time is kept: a long message for all takes 50 ms for each of its packets, one for a single node 1 ms, and
/// each node sends one of each kind at a time. Short messages arrive at once.
///
/// Time is that of Util::wall_clock, so a settable clock moves the bus. Somebody calls process(): a test after each
/// step of its clock, or the bus's own thread, see start(), which sleeps in real time.
///
/// Any thread may call any member. All nodes share the bus's lock.
class KAV_API JIN_memory_bus {
public:
    static constexpr int packet_ms = 50;          ///< [ms] between packets for all
    static constexpr int addressed_packet_ms = 1; ///< [ms] between packets for one node
    static constexpr int no_receiver_ms = 1250;   ///< [ms] until a transfer to nobody is given up
    static constexpr int max_waiting = 512;       ///< short messages that can be under way at a time

    class Node;

    JIN_memory_bus();
    ~JIN_memory_bus(); ///< its nodes are gone by then
    JIN_memory_bus(const JIN_memory_bus&) = delete;
    JIN_memory_bus& operator=(const JIN_memory_bus&) = delete;

    /// Let everything happen that is due, in the order of its time: the [ms] until there is more to do, -1 for nothing.
    int process();
    /// Do that on a thread of the bus's own from now on. False when the system has none to give.
    bool start();

    /// A message of a node that is not here, as it is in `m`, however wrong: it arrives at once, long ones too.
    void inject(const JIN_message& m);
    /// Take the bus away: what is under way is lost. Or give it back.
    void set_there(bool there);
    /// Lose this share of frames [per mille], for each receiver by itself; a long message is lost with any of its
    /// frames. The same `seed` loses the same ones.
    void set_loss(unsigned per_mille, uint32_t seed = 1);
    uint64_t num_frames() const; ///< that nodes sent so far

private:
    struct Short {
        Node* sender; ///< null: injected, or gone
        uint32_t pgn;
        uint8_t source, destination, priority, length;
        unsigned char bytes[8];
    };

    bool send_short(Node* sender, const JIN_message& m) KAV_REQUIRES(_lock);
    void deliver_shorts(int64_t now) KAV_REQUIRES(_lock);
    void spread(const Node* sender, const JIN_message& m, int64_t now) KAV_REQUIRES(_lock);
    bool lose(uint32_t frames) KAV_REQUIRES(_lock);
    int64_t now() KAV_REQUIRES(_lock);
    int64_t run(int64_t until) KAV_REQUIRES(_lock);
    static void* drive(void* bus);

    mutable Mutex _lock;
    c_sl_list<Node> _nodes KAV_GUARDED_BY(_lock);
    Short _waiting[max_waiting] KAV_GUARDED_BY(_lock);
    int _first KAV_GUARDED_BY(_lock) = 0;
    int _num_waiting KAV_GUARDED_BY(_lock) = 0;
    bool _there KAV_GUARDED_BY(_lock) = true;
    bool _delivering KAV_GUARDED_BY(_lock) = false;
    unsigned _loss KAV_GUARDED_BY(_lock) = 0;
    uint32_t _random KAV_GUARDED_BY(_lock) = 1;
    uint64_t _frames KAV_GUARDED_BY(_lock) = 0;
    int64_t _last_wall KAV_GUARDED_BY(_lock) = INT64_MIN;
    int64_t _offset KAV_GUARDED_BY(_lock) = 0; ///< [ms] makes up for a clock that was set back
    Semaphore _wake{0, true};
    std::atomic<bool> _stop{false};
    Task _driver;
};

/// A node of a bus in memory. Announces itself when it is made, and just goes.
class KAV_API JIN_memory_bus::Node : public JIN_stack, public sll_node, private JIN_address_claim::Port {
public:
    /// `preferred` as for JIN_address_claim. A NAME of 0 only listens. `bus` and `mm` outlive the node.
    Node(JIN_memory_bus& bus, module_man& mm, JIN_name name, uint8_t preferred);
    ~Node() override;

    Result send(const JIN_message& m) override;
    bool address(uint8_t& own) const override;
    JIN_name name() const override KAV_NO_THREAD_SAFETY_ANALYSIS { return _claim.name(); } ///< never changes
    bool bus_is_there() const override;
    bool name_of(uint8_t address, JIN_name& name) const override;

    JIN_address_claim::State claim_state() const;
    /// Be busy whatever is sent, until it is taken back.
    void set_busy(bool on);

private:
    friend class JIN_memory_bus;
    /// A long message on its way.
    struct Transfer {
        bool under_way = false;
        bool fails = false; ///< nobody is there to take it
        int64_t ends = 0;
        JIN_grow_message message;
    };

    void heard(const JIN_message& m, int64_t now) KAV_REQUIRES(lock);
    int64_t due() const KAV_REQUIRES(lock);
    void run(int64_t now) KAV_REQUIRES(lock);
    void end(Transfer& t, int64_t now) KAV_REQUIRES(lock);
    void bus_gone() KAV_REQUIRES(lock);
    void bus_back(int64_t now) KAV_REQUIRES(lock);
    Result start(Transfer& t, const JIN_message& m, uint8_t own) KAV_REQUIRES(lock);
    // The node's lock is the bus's.
    void bus_is_locked() const KAV_REQUIRES(lock) KAV_ASSERT_CAPABILITY(_bus._lock) {}
    void is_locked() const KAV_ASSERT_CAPABILITY(lock) {} ///< the bus, and so its node

    bool send_claim(uint8_t from) override KAV_REQUIRES(lock);
    bool send_request_for_claims() override KAV_REQUIRES(lock);
    void claimed_address() override KAV_REQUIRES(lock);
    void lost_address() override KAV_REQUIRES(lock);
    void cannot_claim() override KAV_REQUIRES(lock);
    void address_violated() override KAV_REQUIRES(lock);

    JIN_memory_bus& _bus;
    JIN_address_claim _claim KAV_GUARDED_BY(lock);
    Transfer _for_all KAV_GUARDED_BY(lock);
    Transfer _for_one KAV_GUARDED_BY(lock);
    bool _busy KAV_GUARDED_BY(lock) = false;
};
