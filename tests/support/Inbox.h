// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_descriptor.h"
#include "util/atime.h"
#include <string>

/// A waiter without a thread; events are taken by the test.
class Inbox {
public:
    explicit Inbox(module_man& mm) { waiter.init(&mm); }
    /// The data words of what has arrived, one behind the other.
    std::string targets() {
        std::string all;
        waiter_event e;
        while (waiter.get_event(&e, Atime(false)) == 0) all += std::to_string(static_cast<long>(e.data));
        return all;
    }
    waiter_descriptor waiter;
};
