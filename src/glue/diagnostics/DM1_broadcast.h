// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Trouble_codes.h"
#include "glue/jin/JIN_transmission.h"
#include "util/api.h"

/// When the active codes are told to all.
///
/// - At once when a code becomes active or inactive; one that did so within the last second waits for the tick.
/// - Each second, the tick, while one is active; with Mode::j1939 always.
/// - After the last one went, the message without codes once. With Mode::iso silence follows.
///
/// A message of more than 34 codes takes longer than a second: the next one is built when the bus has room for it.
///
/// DM13 may stop it. A stop with a duration lasts that long; any other for 6 s after the last DM13 that repeats it or
/// holds, since the one who holds says so every 5 s. A start ends it, and what is active is told at once. Only the link
/// that the message came by is looked at. Requests are answered all the time.
///
/// All members belong to the diner's thread or are called under its lock.
class KAV_INTERNAL DM1_broadcast : public JIN::Transmission<JIN_grow_message> {
public:
    static constexpr int period_ms = 1000;   ///< [ms]
    static constexpr int hold_ms = 6000;     ///< [ms]
    static constexpr int just_told_ms = 100; ///< [ms] before the tick: it is left out

    DM1_broadcast(Diner& diner, JIN_stack& node, Trouble_codes& codes, Trouble_code_messages::Mode mode);

    /// Codes may have changed, or the diner was stopped and started.
    void update();
    void take_DM13(const JIN_message& m);
    bool suspended() const { return _suspended; }

    using Transmission::handle;
    /// True when the timeout was this broadcast's. Codes may have changed then.
    bool handle(Timeout& t);

private:
    bool build(JIN_grow_message& m, uint8_t destination) override;
    bool wanted();
    void tell();
    void arm();
    void suspend(int ms);
    void resume();

    Diner& _diner;
    Trouble_codes& _codes;
    const Trouble_code_messages::Mode _mode;
    Timeout _tick, _end;
    Atime _told_at{false}; ///< at once, or by the tick
    bool _suspended = false;
    bool _timed = false;        ///< suspended for a time that was named
    bool _built = false;        ///< there were codes in what was built last
    bool _told = false;         ///< there were codes in what was sent last
    uint32_t _counted_sent = 0; ///< of sent(), as far as _told knows
};
