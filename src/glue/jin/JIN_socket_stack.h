// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_address_claim.h"
#include "glue/jin/JIN_socket.h"
#include "glue/jin/JIN_stack.h"
#include "platform/Task.h"
#include "util/api.h"
#include <atomic>

/// A node of a CAN interface, over the J1939 sockets of the Linux kernel: the kernel cuts long messages into packets
/// and puts them together, the node claims and defends its address.
///
///     can0 -> kernel -> reader thread -> inboxes -> the diners that were woken
///
/// Whatever is wrong with the interface (missing, down, unplugged, no J1939 in the kernel, no right) is told once, in
/// one line on the debug output that says what to do, and to the waiters by event_bus_gone. The reader then tries again
/// every 250 ms; when the bus is back, the address is claimed anew.
///
/// One reader thread, from start() to the end, asleep in poll(). The kernel passes on only what the inboxes want.
class KAV_API JIN_socket_stack : public JIN_stack, private JIN_address_claim::Port {
public:
    static constexpr int retry_ms = 250;     ///< [ms] between attempts to open an interface
    static constexpr int room_ms = 20;       ///< [ms] after a send that the kernel had no room for
    static constexpr int longest_ms = 30000; ///< [ms] after which a transfer without a report counts as ended

    /// What keeps the node from the bus.
    enum Trouble {
        none,
        no_kernel_support, ///< the module can-j1939 is not loaded
        not_permitted,     ///< no right to open such sockets
        no_interface,      ///< never there, or unplugged
        no_can_interface,  ///< there, but something else
        interface_down,
        other_trouble ///< the line on the debug output has the system's words
    };

    /// `interface` ("can0") is copied, 15 characters at most. `preferred` as for JIN_address_claim. A NAME of 0 only
    /// listens: it sends nothing, not even a claim. `mm` outlives the stack.
    JIN_socket_stack(module_man& mm, const char* interface, JIN_name name, uint8_t preferred);
    /// Ends the reader. Waits for a long message that is under way, 13 s at most.
    ~JIN_socket_stack() override;

    /// Start the reader, which opens the interface; once. False when the system has no thread to give.
    bool start();

    Result send(const JIN_message& m) override;
    bool address(uint8_t& own) const override;
    JIN_name name() const override KAV_NO_THREAD_SAFETY_ANALYSIS { return _claim.name(); } ///< never changes
    bool bus_is_there() const override;
    bool name_of(uint8_t address, JIN_name& name) const override;

    JIN_address_claim::State claim_state() const;
    Trouble trouble() const; ///< none while the bus is there, and before the first attempt
    /// Long messages to this node that their senders did not finish, and those of more than 1785 bytes. No lock.
    uint32_t receptions_failed() const { return _receptions_failed.load(std::memory_order_relaxed); }

private:
    /// What goes out in packets comes back from the kernel when it has ended.
    struct Echo {
        bool is(const JIN_message& m, int64_t now) const {
            return m.pgn == pgn && m.size == size && m.source == source && now < until;
        }
        uint32_t pgn = 0, size = 0;
        uint8_t source = JIN::no_address;
        int64_t until = 0;
    };
    /// Carries one long message at a time, so that short ones, which have a socket of their own, need not wait behind.
    struct Carrier {
        JIN_socket socket;
        bool under_way = false;
        int64_t given_up_at = 0;
        Echo last, before; ///< two, since the next message may go out before the last one has come back
    };

    static void* run(void* stack);
    void read_until_stopped();
    void open_when_due(int64_t now) KAV_REQUIRES(lock);
    void run_what_is_due(int64_t now) KAV_REQUIRES(lock);
    int open() KAV_REQUIRES(lock);
    void bus_gone(int error) KAV_REQUIRES(lock);
    void close() KAV_REQUIRES(lock);
    int64_t due() const KAV_REQUIRES(lock);
    void receive_some();
    void received(const JIN_message& m, int64_t now) KAV_REQUIRES(lock);
    bool is_echo(const JIN_message& m, int64_t now) const KAV_REQUIRES(lock);
    void end(Carrier& c) KAV_REQUIRES(lock);
    void look_after(Carrier& c);
    void failed(int error) KAV_REQUIRES(lock);
    Result send_with(Carrier& c, const JIN_message& m, uint8_t own) KAV_REQUIRES(lock);
    Result result_of(int error) KAV_REQUIRES(lock);
    void set_filter() KAV_REQUIRES(lock);
    void wishes_changed() override KAV_REQUIRES(lock);
    void wake_reader() const;

    bool send_claim(uint8_t from) override KAV_REQUIRES(lock);
    bool send_request_for_claims() override KAV_REQUIRES(lock);
    void claimed_address() override KAV_REQUIRES(lock);
    void lost_address() override KAV_REQUIRES(lock);
    void cannot_claim() override KAV_REQUIRES(lock);
    void address_violated() override KAV_REQUIRES(lock);

    char _interface[16];
    JIN_address_claim _claim KAV_GUARDED_BY(lock);
    // Opened and closed by the reader alone, under the lock: the reader itself uses them without.
    JIN_socket _main; ///< short messages, claims, and all that is received
    Carrier _for_all, _for_one;
    bool _there KAV_GUARDED_BY(lock) = false;
    bool _stop KAV_GUARDED_BY(lock) = false;
    int _error KAV_GUARDED_BY(lock) = 0; ///< told last; 0 when the bus was there since
    Trouble _trouble KAV_GUARDED_BY(lock) = none;
    int64_t _open_at KAV_GUARDED_BY(lock) = 0;         ///< [ms] the next attempt
    int64_t _room_at KAV_GUARDED_BY(lock) = INT64_MAX; ///< [ms] when to tell that there is room
    int _wake_fd = -1;                                 ///< set before the reader starts
    unsigned char _bytes[JIN::max_length];             ///< the reader's
    std::atomic<uint32_t> _receptions_failed{0};
    Task _reader;
};
