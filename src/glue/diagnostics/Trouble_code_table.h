// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Trouble_code.h"
#include "util/api.h"
#include "util/atime.h"
#include "util/avl_bstree.h"
#include <memory>

/// A fixed number of trouble codes: found by SPN and FMI, by their place in that order, and by when they last changed.
/// Nothing is allocated after construction. No lock.
///
///     tree    every code in use, ordered by SPN, then FMI
///     chains  one for each state, the code that changed last in front
class KAV_API Trouble_code_table {
public:
    static constexpr unsigned default_capacity = 500; ///< [codes]

    enum State : uint8_t {
        unused,
        active,
        previous, ///< previously active
        cleared,  ///< erased while its condition is set: it comes back
        num_states
    };

    class Entry : public avl_bsnode {
    public:
        Trouble_code code() const { return Trouble_code::from_key(key, count); }
        Entry* older() const { return _older; } ///< the one of its state that changed before it; null: none
        State state() const { return _state; }

        uint32_t key = 0;           ///< Trouble_code::key()
        uint8_t count = 0;          ///< of activations, 1 to 126
        bool until_cleared = false; ///< what it tells of happened and is over: it stays until it is cleared
        Lamp lamp;
        Atime first{false};     ///< when it first became active, zero when that is not known
        Atime last{false};      ///< when it last became active or inactive, zero when that is not known
        Atime announced{false}; ///< when a change of it was last told

    private:
        friend class Trouble_code_table;
        State _state = unused;
        Entry *_newer = nullptr, *_older = nullptr;
    };

    explicit Trouble_code_table(unsigned capacity = default_capacity);
    ~Trouble_code_table();

    unsigned capacity() const { return _capacity; }
    unsigned count(State s) const { return _chains[s].count; }
    /// The code that changed last among those of a state; null: none. Go on with Entry::older().
    Entry* newest(State s) const { return _chains[s].newest; }

    Entry* find(uint32_t key) const; ///< null when it is not in use. O(log n)
    /// The code at a place in the order of SPN and FMI, from 0; null out of range. O(log n)
    Entry* operator[](unsigned place) const { return _tree[static_cast<int>(place)]; }
    unsigned size() const { return static_cast<unsigned>(_tree.count()); } ///< codes in use

    /// The code of a key that is not in use, with a count of 0, in a state. In a full table the previously active code
    /// that changed longest ago makes room; null when there is none. O(log n)
    Entry* add(uint32_t key, State s);
    /// Give a code in use another state; it is then the one that changed last. O(1)
    void move(Entry& e, State s);
    void erase(Entry& e); ///< O(log n)

private:
    struct Chain {
        Entry *newest = nullptr, *oldest = nullptr;
        unsigned count = 0;
    };
    static int by_key(const Entry* a, const Entry* b);
    void unlink(Entry& e);
    void link(Entry& e, State s);

    const unsigned _capacity;
    const std::unique_ptr<Entry[]> _entries;
    Chain _chains[num_states];
    c_bstree<avl_bstree, Entry> _tree;
};
