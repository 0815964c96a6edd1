// SPDX-License-Identifier: MIT
// Three nodes among neighbours that say anything. Each step is a byte that says what happens, and what it needs:
//   c SOURCE NAME    a claim, with the low byte of a NAME of the kind that the nodes have
//   m PGN SOURCE DESTINATION LENGTH BYTES    any message; 3 bytes of PGN, little-endian
//   t TIME           passes [10 ms]
//   s NODE LENGTH    a node sends
//   l LOSS           of frames from now on [per mille]
//   b                the bus goes, or comes back
#include "fuzz/checks.h"
#include "jin/Test_bus.h"
#include <memory>

namespace {

constexpr uint64_t arbitrary = uint64_t{1} << 63;
constexpr JIN_inbox::Reach reach = JIN_inbox::everything;

struct World {
    void pass(int ms) { clock.advance(ms), bus.process(); }
    void step(Input& in) {
        const char what = static_cast<char>(in.next());
        if (what == 'c') {
            const uint8_t source = in.next();
            bus.inject(claim_of(JIN_name(arbitrary | in.next()), source));
        } else if (what == 'm') {
            const uint32_t pgn = in.little_endian(3);
            const uint8_t source = in.next(), destination = in.next();
            bus.inject(message(pgn, in.next(in.next() * 8u), destination, source));
        } else if (what == 't') {
            pass(in.next() * 10);
        } else if (what == 's') {
            Test_node& n = nodes[in.next() % 3];
            n.send(message(0xEF00, std::string(in.next() * 8u, 'x')));
        } else if (what == 'l') {
            bus.set_loss(in.next() * 4u);
        } else if (what == 'b') {
            bus.set_there(there = !there);
        }
        for (Test_node& n : nodes) n.received();
    }

    Manual_clock clock;
    module_man modules; // of this world alone: there are 31,742 ids
    JIN_memory_bus bus;
    Test_node nodes[3] = {{bus, JIN_name(arbitrary | 100), 0x80, reach, modules},
                          {bus, JIN_name(arbitrary | 50), 0x80, reach, modules},
                          {bus, JIN_name(200), 0x81, reach, modules}};
    bool there = true;
};

} // namespace

void fuzz(Input in) {
    const auto world = std::make_unique<World>();
    for (uint64_t steps = 1; !in.is_empty(); ++steps) {
        world->step(in);
        require(world->bus.num_frames() < 400 * steps + 1000, "no frame sets off an endless exchange");
    }
    // When the neighbours are quiet, nobody shares an address.
    world->bus.set_there(true);
    world->bus.set_loss(0);
    for (int i = 0; i < 4; ++i, world->pass(20000))
        for (Test_node& n : world->nodes) n.send(message(0xFF00, "x"));
    const int a = world->nodes[0].address(), b = world->nodes[1].address(), c = world->nodes[2].address();
    require((a < 0 || (a != b && a != c)) && (b < 0 || b != c), "an address has one owner");
}
