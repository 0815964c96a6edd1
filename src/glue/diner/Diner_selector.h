// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Diner.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/avl_bstree.h"

/// A set of diners of which one is selected to run: alternative implementations of one role. Selecting stops the diner
/// selected before (which parks after the event it is handling, so both may run for a moment; when it does not run yet,
/// its start is taken back) and starts the new one. A selected diner that leaves the selector is stopped in the same
/// way, so that never more than one of those that were selected goes on running.
///
/// The selector outlives its diners, which join through Diner::init() or Diner::set_selector(). Any thread but a
/// handler of one of its diners.
class KAV_API Diner_selector {
public:
    Diner_selector();
    ~Diner_selector(); ///< its diners are in no selector then
    Diner_selector(const Diner_selector&) = delete;
    Diner_selector& operator=(const Diner_selector&) = delete;

    int register_diner(Diner* d);         ///< 0; -1 when it is in a selector, or one with an equal descriptor is here
    int deregister_diner(const Diner* d); ///< 0; -1 when not there. The selected diner leaves no selection behind.
    /// Diner::set_selector().
    static int move(Diner& d, Diner_selector* to);
    /// Select by position in the order of the set, or by descriptor: 0, or -1 when there is none, or it has just come
    /// in from Diner::init() and cannot start yet (nothing changes then). Whether the diners really start and stop is
    /// not looked at, but one that still parks is waited for, as by wait_stopped(), and then started. Selecting the
    /// selected one does nothing.
    int select_diner(int index);
    int select_diner(const Diner::Descriptor& d);
    Diner* get_selected() const;        ///< null when none
    Diner* operator[](int index) const; ///< null out of range
    int num_diners() const;
    /// Copy the descriptors of the first min(max, num_diners()) diners.
    void get_descriptors(Diner::Descriptor* out, int max) const;
    /// By id, then by name.
    static int descriptor_compare(const Diner* a, const Diner* b);

private:
    /// Never started; the key of a search.
    class Dummy_diner : public Diner {
    public:
        void handle_event(waiter_event&) override {}
        void handle_timeout(Timeout&) override {}
        using Diner::handle_timeout;
    };
    int select(Diner* d) KAV_REQUIRES(_mutex);
    int enter(Diner& d) KAV_REQUIRES(_mutex);
    void leave(Diner& d) KAV_REQUIRES(_mutex);
    static void halt(Diner& d);

    mutable Mutex _mutex;
    Dummy_diner _dummy KAV_GUARDED_BY(_mutex);
    Diner* _selected KAV_GUARDED_BY(_mutex) = nullptr;
    c_bstree<avl_bstree, Diner> _diners KAV_GUARDED_BY(_mutex);
};
