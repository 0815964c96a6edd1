// SPDX-License-Identifier: MIT
#pragma once
#include "Block_items.h"
#include "Line_message.h"
#include "glue/cds/CDS_events.h"
#include "glue/data_stream/Posix_threaded_data_stream.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include <mutex>

/// Answers requests: 'D' skip: a page of the description; 'R' id: the value; 'W' id value: 0, or the id of what failed,
/// 65535 when there is no such item.
class Publisher : public Diner::Protection {
public:
    Publisher(Posix_threaded_data_stream& line, Block_items& items) : _line(line), _items(items) {
        Options options;
        options.pass_anonymous = true;
        init(Diner_info_list::get(), Descriptor("PUBLISHER", 1), options);
        _line.register_waiter(&waiter);
        start();
    }
    ~Publisher() override {
        _line.deregister_waiter(&waiter);
        terminate(true);
    }

private:
    void handle_event(waiter_event&) override {
        char kind;
        std::string contents;
        while (receive_message(_line, kind, contents)) {
            char page[page_size];
            CDS::Remote::Send_buffer out(page, 0, sizeof page);
            answer(kind, CDS::Remote::Receive_buffer(contents.data(), static_cast<int>(contents.size())), out);
            send_message(_line, kind, page, static_cast<int>(out.position - page));
        }
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;

    void answer(char kind, CDS::Remote::Receive_buffer in, CDS::Remote::Send_buffer& out) {
        // Whoever reads or changes the block, or signals that it changed, holds the lock of its head.
        std::lock_guard<Mutex> guard(_items.head);
        if (kind == 'D') {
            if (in.pop_INT32(out.skip) && out.skip >= 0) _items.root.serialise_structure(out, 255);
            return;
        }
        unsigned short id = 0, from_its_start = 0;
        CDS::Lookup_item* const item = in.pop_UINT16(id) ? _items.root.find_item(id) : nullptr;
        if (kind == 'R' && item) item->serialise(out, from_its_start);
        if (kind == 'W') out.append_UINT16(item ? item->deserialise(in, from_its_start).stop() : 0xFFFF);
    }

    Posix_threaded_data_stream& _line;
    Block_items& _items;
};
