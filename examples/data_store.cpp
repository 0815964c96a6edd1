// SPDX-License-Identifier: MIT
// A block of data that components share: described as items, changed under its lock, with a diner that is woken when
// the bytes that it watches change.
//
// Prints:
//     struct Machine { ""
//         struct Position { "what the receiver says"
//             double lat; // latitude [deg]
//             double lon; // longitude [deg]
//         } position;
//         unsigned short satellites[2]; // used of each system
//     } machine;
//     display: position 49.20 8.60
//     display: position 49.21 8.60
//     position.lat is 49.21
//     machine:
//       position:
//         lat: 49.21
//         lon: 8.6
//       satellites:
//         0: 8
//         1: 4
#include "glue/cds/CDS_events.h"
#include "glue/cds/CDS_items.h"
#include "glue/cds/Data_item_text.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include "util/Debug_print.h"
#include "util/Debug_text_dumper.h"
#include "util/Semaphore.h"
#include <cstddef>
#include <cstdio>
#include <mutex>

namespace {

struct Position {
    double lat, lon;
};
struct Block { // what the components read and write
    Position position;
    unsigned short satellites[2];
};

struct Block_items { // what the store knows of it, one line per member, in order
    Block_items(CDS::Head& h, Block& b) : head(h), block(b) {
        root.set_type_name("Machine");
        position.set_type_name("Position");
        root.finish();
    }
    CDS::Head& head;
    Block& block;
    CDS::Root root{head, "machine", block};
    CDS::Struct position{root, "position", block.position, "what the receiver says"};
    CDS::Value<double> lat{position, "lat", block.position.lat, "latitude [deg]"};
    CDS::Value<double> lon{position, "lon", block.position.lon, "longitude [deg]"};
    CDS::Array<unsigned short> satellites{root, "satellites", block.satellites, "used of each system"};
};

class Display : public Diner::Protection {
public:
    explicit Display(Block_items& items) : _items(items) {
        init(Diner_info_list::get(), Descriptor("DISPLAY", 4));
        start();
        const std::lock_guard<Mutex> guard(_items.head);
        _position.autoreg(&waiter);
    }
    ~Display() override {
        {
            const std::lock_guard<Mutex> guard(_items.head);
            _position.autounreg(&waiter);
        }
        terminate(true);
    }
    Semaphore shown;

private:
    void handle_event(waiter_event& event) override {
        if (!_items.head.is_event(event, CDS::reg_access)) return; // event.data is the address of the handle
        Position p;
        {
            const std::lock_guard<Mutex> guard(_items.head);
            p = _items.block.position;
        }
        printf("display: position %.2f %.2f\n", p.lat, p.lon);
        shown.release();
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;

    Block_items& _items;
    CDS::Access_base _position{&_items.head, offsetof(Block, position), sizeof(Position)};
};

void set_position(Block_items& items, Position p) {
    const std::lock_guard<Mutex> guard(items.head);
    const Position before = items.block.position;
    items.block.position = p;
    items.head.event_signal(&items.block.position, &before, offsetof(Block, position), sizeof before, nullptr);
}

} // namespace

int main() {
    Debug_print::debug_file = stdout;
    Block block = {{0, 0}, {8, 4}};
    CDS::Head head(&Diner_info_list::get(), 0);
    Block_items items(head, block);
    items.root.print_declaration(0);

    Display display(items);
    set_position(items, {49.20, 8.60});
    display.shown.acquire();
    set_position(items, {49.20, 8.60}); // no byte differs: nobody is woken
    set_position(items, {49.21, 8.60});
    display.shown.acquire();

    const std::lock_guard<Mutex> guard(head);
    if (items.root.find_item("position.lat", '.') == &items.lat) {
        char text[32];
        Data_item_stringify<double>(&block.position.lat).to_string(text, sizeof text);
        printf("position.lat is %s\n", text);
    }
    Debug::Text_dumper dumper(stdout);
    items.root._print(dumper);
}
