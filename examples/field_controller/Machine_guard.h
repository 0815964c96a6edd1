// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/Supervisor.h"
#include "platform/Service_manager.h"

/// Has the controller restarted when one of its diners hangs, where a service manager started it, and tells that when
/// it is ready and when it ends. field_controller.service is how the manager learns what to do.
class Machine_guard {
public:
    explicit Machine_guard(module_man& modules) {
        _supervisor.add_watchdog(_manager);
        _supervisor.init(modules);
    }
    void ready() { _manager.ready(); }
    void stopping() { _manager.stopping(); }

private:
    Service_manager _manager; ///< outlives the supervisor, which feeds it
    Supervisor _supervisor;
};
