// SPDX-License-Identifier: MIT
#pragma once
#include "glue/jin/JIN_message.h"
#include "glue/jin/JIN_name.h"
#include "util/api.h"
#include <cstdint>

/// The address of one node: claims it, defends it, gives way to a NAME that wins, and finds another (ISO 11783-5). Its
/// owner, a stack, brings the frames, the time and a lock.
///
///     begin -> (0..153 ms) -> claiming -- 250 ms without a winner --> claimed
///                               |  ^  lost, and another one is free      |
///                               v  +------------------------------------- lost, commanded
///                             no address: all that this node could take belong to winners
///
/// A start is delayed by 0 to 153 ms, which follow from the NAME, so that of nodes that are switched on together hardly
/// any two speak at once. Then everybody is asked for his address, which tells what is free, and the preferred one is
/// claimed. A NAME with an arbitrary address that loses it takes a free one of 128..247; if there is none, one that
/// belongs to a NAME that it wins against. A node that gets none waits until it hears that one is free; nobody says so
/// when he is unplugged, so once a minute it asks again.
class KAV_API JIN_address_claim {
public:
    static constexpr int contention_ms = 250;  ///< [ms] a claim stands without an answer: the address is ours
    static constexpr int most_delay_ms = 153;  ///< [ms] longest random delay: 255 times 0.6 ms
    static constexpr int violation_ms = 1000;  ///< [ms] others that use our address are answered once in this time
    static constexpr int retry_ms = 10;        ///< [ms] after a frame that could not be sent
    static constexpr int ask_again_ms = 60000; ///< [ms] while no address can be had
    static constexpr uint8_t first_arbitrary = 128, last_arbitrary = 247;

    enum State {
        silent,    ///< begin() was not called, or quit() was
        waiting,   ///< of the delay at the start
        claiming,  ///< a claim is out
        claimed,   ///< address() is ours
        no_address ///< cannot claim: nothing is sent but that
    };

    /// What the owner does for it. Called from the calls below.
    class KAV_API Port {
    public:
        virtual ~Port();
        /// Send our NAME to all, from this address; no_address says that we have none. False: try again.
        virtual bool send_claim(uint8_t from) = 0;
        /// Ask everybody for his address, from the null address. False: it could not be sent.
        virtual bool send_request_for_claims() = 0;
        virtual void claimed_address() = 0;
        virtual void lost_address() = 0;
        virtual void cannot_claim() = 0;
        virtual void address_violated() = 0;
    };

    /// `preferred` 0..253; the one remembered from the last time serves best. 254: any of the arbitrary ones.
    /// `margin` [ms] is added to the contention time, which with one also begins anew when the claim is repeated: the
    /// kernel counts for itself, from the last claim on.
    JIN_address_claim(Port& port, JIN_name name, uint8_t preferred, int margin = 0);

    // Times are milliseconds of any clock that does not go back.

    /// Begin, or begin anew after quit(), with the address that it had last.
    void begin(int64_t now);
    /// The bus is gone: forget what was heard. lost_address() if there was one.
    void quit();
    /// A message from another node, whomever it is for.
    void heard(const JIN_message& m, int64_t now);
    /// Do what is due.
    void run(int64_t now);
    /// When run() is to be called next; INT64_MAX: not before something is heard.
    int64_t due() const { return _due; }

    State state() const { return _state; }
    /// The address that is ours; false while there is none.
    bool address(uint8_t& own) const;
    JIN_name name() const { return _name; }
    /// Who claimed `a`; 0 when nobody was heard to.
    JIN_name holder(uint8_t a) const;

private:
    void claim(uint8_t a, int64_t now);
    void take_another(uint8_t first_choice, int64_t now);
    bool choose(uint8_t first_choice, uint8_t& a) const;
    bool may_take(uint8_t a) const;
    void ask(int64_t now);
    void send(int64_t now);
    void answer(int64_t now);
    void heard_claim(const JIN_message& m, int64_t now);
    void heard_command(const JIN_message& m, int64_t now);
    void violated(int64_t now, bool answer_it);
    int delay();

    static constexpr int64_t never = INT64_MAX;
    static constexpr int num_holders = JIN::highest_unicast + 1;

    Port& _port;
    const JIN_name _name;
    const uint8_t _preferred;
    const int _margin;
    uint8_t _wanted; ///< the address that is being claimed, or ours
    State _state = silent;
    bool _asked = false;   ///< everybody, since begin()
    bool _to_send = false; ///< a claim, or that there is none, at `_due`
    int64_t _due = never;
    int64_t _claimed_at = never; ///< when the contention ends; never before the claim is out
    int64_t _next_violation = INT64_MIN;
    uint32_t _random;
    uint64_t _holders[num_holders] = {}; ///< NAME of each address, the own one left out
};
