// SPDX-License-Identifier: MIT
#include "glue/data_stream/Event_sender_data_stream.h"
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_descriptor.h"
#include <cstdlib>

Event_sender_data_stream::Event_sender_data_stream(module_man* mm) {
    short id = 0;
    if (mm && mm->init_module(&id, false) != 0) exit(-132);
    _module_id = static_cast<unsigned short>(id);
}

void Event_sender_data_stream::lock() KAV_NO_THREAD_SAFETY_ANALYSIS {}

void Event_sender_data_stream::unlock() KAV_NO_THREAD_SAFETY_ANALYSIS {}

void Event_sender_data_stream::reg_rx_waiter(waiter_descriptor* w, bool only_when_full) {
    const Scoped_lock held(*this);
    _rx_waiter = w;
    _rx_only_when_full = only_when_full;
}

void Event_sender_data_stream::reg_tx_waiter(waiter_descriptor* w, bool only_when_empty) {
    const Scoped_lock held(*this);
    _tx_waiter = w;
    _tx_only_when_empty = only_when_empty;
}

void Event_sender_data_stream::send_rx_event(bool full) {
    if (full || !_rx_only_when_full) post(_rx_waiter, full ? event_data_full : event_data);
}

void Event_sender_data_stream::send_tx_event(bool empty) {
    if (empty || !_tx_only_when_empty) post(_tx_waiter, empty ? event_drained : event_space);
}

void Event_sender_data_stream::post(waiter_descriptor* w, int code) const {
    if (!w) return;
    w->send_event(waiter_event(static_cast<short>(_module_id), code, 0), waiter_descriptor::merge_duplicates);
}
