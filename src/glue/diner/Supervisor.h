// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Diner_protection.h"
#include "util/api.h"
#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

class Watchdog;

/// Looks whether the diners of the process work, and feeds watchdogs as long as they do: so a controller that hangs is
/// started again.
///
///     Service_manager manager;            // and, or: Device_watchdog watchdog; watchdog.open()
///     Supervisor supervisor;
///     supervisor.add_watchdog(manager);
///     supervisor.init(Diner_info_list::get());
///
/// It watches every diner of the status list, from its init() to its end. Trouble is a handler that runs longer than
/// its limit (`info.handler_limit_ms` of a diner, else the one below), a diner that takes none of its events while no
/// handler runs (its lock is held by somebody else), and an event pool that stays as good as empty. Of each it tells
/// once, with a line on the debug output, then does what was chosen, and tells again when it is over.
///
/// Time in which the process as a whole stood still (stopped, asleep, starved) counts for nobody: what is judged is
/// time in which the supervisor itself ran.
class KAV_API Supervisor : public Diner::Protection {
public:
    enum Kind { long_handler, standing_queue, empty_pool };
    struct Trouble {
        Kind kind = long_handler;
        Diner::Descriptor diner; ///< of an empty pool the one with most events
        const char* file = "";   ///< its last checkpoint: a path under the source root ...
        int line = 0;            ///< ... and a fixed number
        int64_t ms = 0;          ///< [ms] age of the handler, or how long nothing moved
        int queued = 0;          ///< events that wait for the diner
    };
    enum Reaction {
        starve,     ///< feed no watchdog while the trouble lasts
        call,       ///< call `on_trouble`; the watchdogs are fed, unless that calls starve_for_good()
        abort_there ///< abort the process
    };
    struct Options {
        int period_ms = 1000;  ///< [ms] between two looks; a third of a watchdog's limit where that is less
        int handler_ms = 5000; ///< [ms] a handler may run
        int queue_ms = 10000;  ///< [ms] a queue may stand
        int pool_ms = 10000;   ///< [ms] the pool may be empty
        int priority = 0;      ///< 1..99 for real-time scheduling: above the diners is best
        Reaction reaction = starve;
        /// On the supervisor's thread, under its lock; it does not wait.
        std::function<void(const Trouble&)> on_trouble;
    };
    static constexpr int pool_low = 10; ///< [nodes] free below which the pool counts as empty

    Supervisor();
    explicit Supervisor(Options options);
    ~Supervisor() override; ///< ends its thread; a watchdog that is not disarmed will bite

    /// Feed this one too; before init(). Not owned.
    void add_watchdog(Watchdog& w);
    using Diner::init;
    /// Give it its thread, "SUPERVISOR", start it, and feed for the first time. The pool is that of `mm`.
    void init(module_man& mm);

    /// Feed no watchdog from now on: for who knows that a restart is needed. Any thread.
    void starve_for_good() { _starved = true; }
    bool in_trouble() const { return _in_trouble; } ///< at the last look. Any thread
    /// What the supervisor does every period, as if one were over; for tests, and before init().
    void look();

private:
    /// What is known of a diner, or the pool, since the last look.
    struct Watched {
        const Diner_info* info = nullptr;
        uint64_t handler = 0;     ///< when the handler began that ran then; 0: none
        uint32_t num_handled = 0; ///< events and passes of timeouts
        int64_t ms = 0;           ///< [ms] for which that has been so
        bool seen = false;
        bool told = false;
    };

    void diner_start() override;
    void handle_event(waiter_event&) override {}
    void handle_timeout(Timeout&) override;
    using Diner::handle_timeout;

    void look_at_diners(int64_t passed);
    void look_at(Diner_info& other, int64_t passed);
    void look_at_pool(int64_t passed);
    void judge(Watched& w, const Trouble& now, bool trouble);
    void feed();
    int period() const;

    const Options _options;
    module_man* _modules = nullptr;
    std::vector<Watchdog*> _watchdogs;
    std::vector<Watched> _watched;     ///< as many as there are diners
    std::vector<Trouble> _news, _over; ///< found in this look, not told yet
    Watched _pool;
    Trouble _longest;             ///< the longest queue in this look
    bool _feeding_failed = false; ///< told
    int64_t _last_look = -1;      ///< [ms]
    Timeout _tick;
    std::atomic<bool> _starved{false}, _in_trouble{false};
};
