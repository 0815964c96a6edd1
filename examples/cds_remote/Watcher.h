// SPDX-License-Identifier: MIT
#pragma once
#include "Block_items.h"
#include "glue/cds/CDS_events.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include <cstddef>
#include <cstdio>
#include <mutex>

/// Wants to know when the wanted speed changes, and nothing else.
class Watcher : public Diner::Protection {
public:
    explicit Watcher(Block_items& items)
        : _items(items), _range(&items.head, offsetof(Block, wanted_speed), sizeof(int)) {
        Options options;
        options.pass_anonymous = true;
        init(Diner_info_list::get(), Descriptor("WATCHER", 2), options);
        start();
        std::lock_guard<Mutex> guard(_items.head);
        _range.autoreg(&waiter);
    }
    ~Watcher() override {
        {
            std::lock_guard<Mutex> guard(_items.head);
            _range.autounreg(&waiter);
        }
        terminate(true); // after what is queued has been handled
    }

private:
    void handle_event(waiter_event& event) override {
        if (!_items.head.is_event(event, CDS::reg_access)) return;
        std::lock_guard<Mutex> guard(_items.head);
        printf("machine: woken, somebody wants %d revolutions per minute\n", _items.block.wanted_speed);
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;

    Block_items& _items;
    CDS::Access_base _range;
};
