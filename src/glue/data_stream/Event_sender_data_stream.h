// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "glue/diner/waiter_ref.h"
#include "util/api.h"

class module_man;
class waiter_descriptor;

/// A stream that notifies one diner when bytes arrive and one when space is freed.
class KAV_CAPABILITY("stream") KAV_API Event_sender_data_stream : public Data_stream {
public:
    /// Event ids of the stream's module.
    enum Event { event_data = 0, event_data_full = 1, event_space = 2, event_drained = 3 };

    /// `mm` (may be null: the events then carry module id 0) supplies the module id. Ends the process with exit(-132)
    /// when there is none left.
    explicit Event_sender_data_stream(module_man* mm);

    virtual void lock() KAV_ACQUIRE();
    virtual void unlock() KAV_RELEASE();

    /// Who is notified that bytes arrived (null: nobody); with `only_when_full` only when they filled the receiving
    /// ring. The waiter is not owned and is unregistered before it dies.
    void reg_rx_waiter(waiter_descriptor* w, bool only_when_full);
    /// Who is notified that space was freed; with `only_when_empty` only when the ring was drained.
    void reg_tx_waiter(waiter_descriptor* w, bool only_when_empty);
    /// Notify the waiter; called with lock() held. Posts are merged, their results ignored.
    void send_rx_event(bool full);
    void send_tx_event(bool empty);

    unsigned short module_id() const { return _module_id; }

private:
    void post(waiter_descriptor* w, int code) const;

    unsigned short _module_id = 0;
    waiter_ref<waiter_ref_base::stream> _rx_waiter;
    waiter_ref<waiter_ref_base::stream> _tx_waiter;
    bool _rx_only_when_full = false;
    bool _tx_only_when_empty = false;
};
