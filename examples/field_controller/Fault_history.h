// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diagnostics/Isobus_diagnostics.h"
#include "util/Semaphore.h"
#include <memory>
#include <mutex>
#include <string>

/// The machine's faults in the diagnostic history of a flash store; here a folder stands in for
/// the store. The manager can be taken down and up again, as a controller does when it loses power: the history
/// goes on. It also tells the bus what is wrong and what the controller is.
class Fault_history {
public:
    /// Where a fault comes from, and what it is.
    enum Source : unsigned char { antenna = 0x80, corrections = 0x81, satellites = 0x82 };
    enum Fault : unsigned short { open_circuit = 1201, too_old = 1310, too_few = 1420 };

    /// `folder` exists; `node` is the controller on its bus, and outlives this.
    Fault_history(module_man& modules, const std::string& folder, JIN_stack& node);
    ~Fault_history();

    bool usable() const { return _mounted; }
    /// Record a fault; any thread.
    bool log(Source source, unsigned short detail, Fault fault);
    /// The bus is told what is wrong, as long as it is; any thread.
    void set(const Trouble_code& code, bool there);
    /// A new manager on the same store.
    void restart();
    /// Print the faults of one source, as they stand in the store, on the debug output.
    void replay(Source source);
    unsigned recorded() const { return _recorded_before + _manager->records_written(); } ///< so far

private:
    /// The library's printing sink, telling when it is done.
    class Printer : public Debug_print_diagnostic_history {
    public:
        void history_finished() override { finished.release(); }
        Semaphore finished;
    };

    void start();

    module_man& _modules;
    const std::string _folder;
    JIN_stack& _node;
    bool _mounted = false;
    Printer _printer;     ///< outlives the manager, whose thread calls it
    std::mutex _changing; ///< guards the manager against being replaced while it is called
    std::unique_ptr<Diagnostics> _manager;
    std::unique_ptr<Isobus_diagnostics> _identity;
    unsigned _recorded_before = 0;
};
