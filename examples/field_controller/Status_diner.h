// SPDX-License-Identifier: MIT
#pragma once
#include "Fault_history.h"
#include "Machine_block.h"
#include "Machine_settings.h"
#include "glue/diner/Diner_protection.h"
#include "track_plot/Track_plot.h"

/// A component that knows nothing of the receiver: woken when the position in the block has changed, it prints where
/// the machine is, at most once a second, has faults recorded as they begin, and can keep the track.
class Status_diner : public Diner::Protection {
public:
    /// `store`, `settings` and `faults` outlive the diner. `quiet`: count, but print nothing. `keep_track`: for a
    /// picture.
    Status_diner(Machine_store& store, Machine_settings& settings, Fault_history& faults, bool quiet, bool keep_track);
    ~Status_diner() override;

    using Diner::init;
    void init(module_man& modules);
    unsigned wake_ups() const;
    /// Draw the track so far; false when the file cannot be written.
    bool write_plot(const std::string& path) const;

private:
    static constexpr int period_ms = 1000;

    void diner_start() override { submit_timeout(_tick, period_ms); }
    void handle_event(waiter_event& event) override;
    void handle_timeout(Timeout&) override;
    using Diner::handle_timeout;

    void update_limit();
    void look_for_faults(const Machine_block& now);
    void report(bool wrong, bool& known, Fault_history::Source source, Fault_history::Fault fault, int detail,
                const char* what, const Trouble_code& code);

    Machine_store& _store;
    Machine_settings& _settings;
    Fault_history& _faults;
    const bool _quiet, _keep_track;
    CDS::Access_base _position;
    Track_plot _plot;
    Timeout _tick;
    int _least_satellites = 0;
    bool _moved = false; ///< since the last line
    int _seconds = 0;    ///< since then
    unsigned _wake_ups = 0;
    unsigned _num_faults = 0; ///< told of
    bool _had_fix = false, _had_satellites = false;
    bool _antenna_open = false, _too_few = false, _not_fixed = false; ///< faults that last
};
