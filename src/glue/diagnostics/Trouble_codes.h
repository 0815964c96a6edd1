// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Trouble_code_messages.h"
#include "glue/diagnostics/Trouble_code_table.h"
#include "util/Mutex.h"
#include "util/api.h"
#include <memory>
#include <string>

/// The trouble codes of a node and the rules by which they change. Any thread may call any member; the lock is a leaf,
/// held for microseconds. Nothing is allocated after construction, except by text() and load().
///
///     set_active      unused, previous -> active, count + 1      cleared: no change, it comes back anyway
///     set_inactive    active -> previous                         cleared -> unused
///     clear           previous -> unused, active -> cleared: count and times are forgotten
///     return_cleared  cleared -> active with a count of 1
///
/// So a code whose condition is set cannot be hidden: who clears it sees it go and come back.
class KAV_API Trouble_codes {
public:
    using State = Trouble_code_table::State;
    static constexpr int announce_ms = 1000;      ///< [ms] a code that changes again so soon after it was told waits
    static constexpr unsigned max_changes = 1024; ///< that wait to be taken

    /// What became active or inactive, and when.
    struct Change {
        Atime when{false};
        Trouble_code code;
        bool active = false;
    };
    /// A code as it stands.
    struct Info {
        Trouble_code code;
        Lamp lamp;
        State state = Trouble_code_table::unused;
        Atime first{false}, last{false}; ///< see Trouble_code_table::Entry
    };

    explicit Trouble_codes(unsigned capacity = Trouble_code_table::default_capacity);

    /// The condition is there. True when the code is active now, or was already. False when it names no fault, and,
    /// counted by refused(), when every place is taken by a code that is active. A code that is active already only
    /// takes the lamp. With `until_cleared` it tells of something that is over: cleared, it does not come back.
    bool set_active(uint32_t spn, unsigned fmi, Lamp lamp = {}, bool until_cleared = false);
    /// The condition is gone. False when it was not there.
    bool set_inactive(uint32_t spn, unsigned fmi);
    /// Erase all of a state, active or previous.
    void clear(State which);
    /// Erase one of a state; why it cannot be, or Msg_DM22::none when it was.
    Trouble_code_messages::Msg_DM22::Reason clear(const Trouble_code& code, State which);
    /// What was cleared while its condition is set becomes active again.
    void return_cleared();

    unsigned count(State s) const;
    /// The code at a place in the order of SPN and FMI, from 0; false out of range. O(log n)
    bool get(unsigned place, Info& info) const;
    bool find(uint32_t spn, unsigned fmi, Info& info) const; ///< false when it is not there
    uint32_t refused() const;
    uint32_t changes_lost() const; ///< there were too many that nobody had taken

    /// The oldest change that was not taken yet; false when there is none.
    bool take_change(Change& c);
    /// Whether something changed since the last call that is to be told at once.
    bool take_urgent();
    /// Everything is being told now, by the tick: what changed since the last one counts as told.
    void told();
    /// Whether something changed since the last call that is to be saved.
    bool take_unsaved();

    void build_DM(Binary_message& m, State state, Trouble_code_messages::Mode mode) const;
    std::string text() const; ///< see to_text()
    /// Take codes over from such a text: how many.
    unsigned load(const std::string& text);

private:
    using Entry = Trouble_code_table::Entry;
    void activate(Entry& e, const Atime& now) KAV_REQUIRES(_mutex);
    void forget(Entry& e, const Atime& now) KAV_REQUIRES(_mutex);
    void changed(Entry& e, const Atime& now, bool active) KAV_REQUIRES(_mutex);
    static Info info_of(const Entry& e);

    mutable Mutex _mutex;
    Trouble_code_table _table KAV_GUARDED_BY(_mutex);
    const std::unique_ptr<Change[]> _changes KAV_GUARDED_BY(_mutex);
    unsigned _first_change KAV_GUARDED_BY(_mutex) = 0;
    unsigned _num_changes KAV_GUARDED_BY(_mutex) = 0;
    uint32_t _refused KAV_GUARDED_BY(_mutex) = 0;
    uint32_t _changes_lost KAV_GUARDED_BY(_mutex) = 0;
    bool _urgent KAV_GUARDED_BY(_mutex) = false;
    bool _unsaved KAV_GUARDED_BY(_mutex) = false;
};
