// SPDX-License-Identifier: MIT
// What may happen to nodes of a CAN bus, on a bus in memory. Its time is the program's own: minutes pass in no time,
// and always in the same way. So they do in a test of a node of yours. In front of each line is the time [ms].
//
// Prints:
//     who has which address
//           0  seeder sends 8 bytes of PGN FECA to 255: busy
//         403  seeder has address 128
//         403  seeder has room again
//         617  seeder lost its address
//         867  seeder has address 159
//         867  sprayer has address 128
//        1292  pump has address 20
//        1528  pump lost its address
//        1528  pump finds no address
//        1778  old pump has address 20
//       62169  pump has address 20
//       63028  pump lost its address
//       63028  pump finds no address
//       63278  old pump has address 20
//       63500  old pump lost its address
//       63750  pump has address 20
//       63750  old pump has address 21
//     what arrives when
//       64000  seeder sends 1785 bytes of PGN FECA to 255: taken
//       64000  seeder sends 9 bytes of PGN FECA to 255: busy
//       64000  seeder sends 8 bytes of PGN FECA to 255: taken
//       64000  seeder sends 8 bytes of PGN FECA to 20: taken
//       64000  seeder sends 0 bytes of PGN EF00 to 20: taken
//       64000  seeder sends 1785 bytes of PGN EF00 to 20: taken
//       64000  seeder sends 9 bytes of PGN EF00 to 20: busy
//       64000  seeder sends 8 bytes of PGN EF01 to 255: refused
//       64000  sprayer receives 8 bytes of PGN FECA from 159 to 255
//       64000  sprayer receives 8 bytes of PGN FECA from 159 to 255
//       64000  pump receives 8 bytes of PGN FECA from 159 to 255
//       64000  pump receives 8 bytes of PGN FECA from 159 to 255
//       64000  pump receives 0 bytes of PGN EF00 from 159 to 20
//       64255  seeder has room again
//       64255  pump receives 1785 bytes of PGN EF00 from 159 to 20
//       76750  sprayer receives 1785 bytes of PGN FECA from 159 to 255
//       76750  pump receives 1785 bytes of PGN FECA from 159 to 255
//       77000  seeder sends 100 bytes of PGN EF00 to 77: taken
//       78250  seeder has failed to deliver 1 long messages
//     what goes wrong
//       78300  seeder hears another node with its address
//       79300  seeder hears another node with its address
//       79500  seeder sends 100 bytes of PGN FECA to 255: taken
//       79600  seeder has failed to deliver 2 long messages
//       79600  seeder lost its address
//       79600  seeder has no bus
//       79600  sprayer lost its address
//       79600  sprayer has no bus
//       79600  pump lost its address
//       79600  pump has no bus
//       80600  sprayer sends 8 bytes of PGN FECA to 255: busy
//       80600  seeder has a bus again
//       80600  sprayer has a bus again
//       80600  pump has a bus again
//       80938  pump has address 20
//       80953  sprayer has address 128
//       80953  sprayer has room again
//       80982  seeder has address 159
//     of 1000 messages of 8 bytes 888 arrive
//     of 1000 messages of 60 bytes 382 arrive
#include "glue/diner/Diner_info_list.h"
#include "glue/jin/JIN_inbox.h"
#include "glue/jin/JIN_memory_bus.h"
#include "util/clock.h"
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

int clock_ms = 0; // [ms]

/// A node that tells what it hears.
class Machine {
public:
    Machine(const char* name, JIN_memory_bus& bus, JIN_name who, uint8_t preferred)
        : node(bus, Diner_info_list::get(), who, preferred), _name(name), _inbox(node, nullptr, {0xFECA, 0xEF00}) {
        _waiter.init(&Diner_info_list::get());
        node.register_waiter(&_waiter);
    }
    ~Machine() { node.deregister_waiter(&_waiter); }

    /// Bytes of 0xFF. Without a destination they are for all.
    void send(uint32_t pgn, uint32_t size, uint8_t to = JIN::global) {
        JIN_grow_message m(pgn, size);
        m.resize(size);
        m.destination = to;
        const auto result = node.send(m);
        tell();
        printf("sends %u bytes of PGN %X to %u: %s\n", size, pgn, unsigned{to},
               result == JIN_stack::taken  ? "taken"
               : result == JIN_stack::busy ? "busy"
                                           : "refused");
    }
    void report() {
        for (waiter_event e; _waiter.get_event(&e, Atime(false)) == 0;) {
            tell();
            printf("%s\n", text_of(e.id).c_str());
        }
        while (_inbox.receive(_message)) {
            tell();
            printf("receives %u bytes of PGN %X from %d to %d\n", _message.size, _message.pgn, _message.source,
                   _message.destination);
        }
    }

    JIN_memory_bus::Node node;

private:
    void tell() const { printf("%7d  %s ", clock_ms, _name); }
    std::string text_of(int event) const {
        uint8_t own = JIN::no_address;
        node.address(own);
        switch (event) {
        case JIN_stack::event_room:
            return "has room again";
        case JIN_stack::event_claimed:
            return "has address " + std::to_string(own);
        case JIN_stack::event_address_lost:
            return "lost its address";
        case JIN_stack::event_no_address:
            return "finds no address";
        case JIN_stack::event_bus_gone:
            return "has no bus";
        case JIN_stack::event_bus_back:
            return "has a bus again";
        case JIN_stack::event_violation:
            return "hears another node with its address";
        case JIN_stack::event_transfer:
            return "has failed to deliver " + std::to_string(node.transfers_failed()) + " long messages";
        default:
            return "is told of event " + std::to_string(event);
        }
    }

    const char* const _name;
    waiter_descriptor _waiter;
    JIN_inbox _inbox;
    JIN_grow_message _message;
};

struct Simulation {
    Simulation() {
        Util::set_wall_clock([](struct timespec& now) { now = {clock_ms / 1000, clock_ms % 1000 * 1000000L}; });
    }
    ~Simulation() { Util::set_wall_clock(nullptr); }

    /// A node that may take any address, or this one only. Of two that want one the smaller NAME wins: of one kind the
    /// smaller number, and against those that may take any address whoever needs this one, in whose NAME the highest
    /// bit is not set.
    Machine& add(const char* name, unsigned number, bool any, uint8_t preferred) {
        JIN_name who;
        who.set_arbitrary_address(any).set_industry_group(2).set_manufacturer_code(2000).set_identity_number(number);
        machines.push_back(std::make_unique<Machine>(name, bus, who, preferred));
        return *machines.back();
    }
    void pass(int ms) {
        for (; ms > 0; --ms, ++clock_ms) {
            bus.process();
            for (const auto& m : machines) m->report();
        }
    }

    JIN_memory_bus bus;
    std::vector<std::unique_ptr<Machine>> machines;
};

/// The sprayer wins the address that the seeder has, who takes another. The pump, of a fixed address, has to wait until
/// the one that won it is gone, which takes a minute to be noticed, or moves, here by a command of a service tool.
void contest(Simulation& s) {
    printf("who has which address\n");
    Machine& seeder = s.add("seeder", 4711, true, 128);
    seeder.send(0xFECA, 8); // it has none yet
    s.pass(500);
    s.add("sprayer", 100, true, 128);
    s.pass(500);
    s.add("pump", 12, false, 20);
    s.pass(500);
    s.add("old pump", 11, false, 20);
    s.pass(500);
    s.machines.pop_back(); // unplugged
    s.pass(61000);
    const JIN_name old_one = s.add("old pump", 11, false, 20).node.name();
    s.pass(500);
    JIN_grow_message command(JIN::pgn_commanded_address, 9);
    command.resize(9);
    old_one.to_bytes(command.data);
    command.set_uint8(8, 21);
    s.bus.inject(command);
    s.pass(500);
    s.machines.pop_back();
}

/// Short messages pass a long one, of which one for all and one for a single node are under way.
void send(Simulation& s) {
    printf("what arrives when\n");
    Machine& seeder = *s.machines[0];
    seeder.send(0xFECA, 1785);
    seeder.send(0xFECA, 9);
    seeder.send(0xFECA, 8);
    seeder.send(0xFECA, 8, 20); // such a PGN has no destination
    seeder.send(0xEF00, 0, 20);
    seeder.send(0xEF00, 1785, 20);
    seeder.send(0xEF00, 9, 20);
    seeder.send(0xEF01, 8); // no PGN: its low byte would be a destination
    s.pass(13000);
    seeder.send(0xEF00, 100, 77); // nobody
    s.pass(1300);
}

void disturb(Simulation& s) {
    printf("what goes wrong\n");
    Machine &seeder = *s.machines[0], &sprayer = *s.machines[1];
    JIN_grow_message m(0xFF00);
    m.source = 159; // the seeder's
    for (int i = 0; i < 12; ++i, s.pass(100)) s.bus.inject(m);
    seeder.send(0xFECA, 100);
    s.pass(100);
    s.bus.set_there(false);
    s.pass(1000);
    sprayer.send(0xFECA, 8);
    s.bus.set_there(true);
    s.pass(1000);
}

/// One of ten frames is lost, and with it the message that it is a part of.
void lose(Simulation& s, uint32_t size) {
    JIN_inbox inbox(s.machines[1]->node, nullptr, {0xFF10}, 1 << 20);
    JIN_grow_message m(0xFF10);
    m.resize(size);
    s.bus.set_loss(100); // [per mille]
    for (int i = 0; i < 1000; ++i, clock_ms += 450, s.bus.process()) s.machines[0]->node.send(m);
    int arrived = 0;
    while (inbox.receive(m)) ++arrived;
    printf("of 1000 messages of %u bytes %d arrive\n", size, arrived);
}

} // namespace

int main() {
    Simulation s;
    contest(s);
    send(s);
    disturb(s);
    lose(s, 8);
    lose(s, 60);
}
