// SPDX-License-Identifier: MIT
// bus_monitor and a manager with trouble codes on the kernel's own J1939 stack and a virtual bus.
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diagnostics/Isobus_diagnostics.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/jin/JIN_socket_stack.h"
#include "kernel/Guest.h"
#include "support/wait_until.h"

namespace {

/// Status and output of a program of the build with its arguments.
std::string run(const std::string& command) {
    const std::string folder = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
    const int status = Guest::sh(folder + "/" + command + " >/tmp/out 2>&1 </dev/null");
    return std::to_string(status) + " " + read_file("/tmp/out");
}

void shows(const std::string& arguments, const std::string& text, unsigned times = 1) {
    const std::string all = run("apps/bus_monitor " + arguments);
    unsigned n = 0;
    for (size_t at = 0; (at = all.find(text, at)) != std::string::npos; at += text.size()) ++n;
    EXPECT_EQ(n, times) << arguments << ": " << all;
}

TEST(bus_monitor, shows_asks_clears_and_records) {
    Guest::must("modprobe vcan && modprobe can-raw && modprobe can-j1939");
    Guest::sh("ip link del vcan0 2>/dev/null"); // of a test before
    Guest::must("ip link add dev vcan0 type vcan && ip link set vcan0 up");
    JIN_socket_stack node(Diner_info_list::get(), "vcan0", JIN_name(0xA000000000000001), 128);
    ASSERT_TRUE(node.start());
    Diagnostics manager("H");
    manager.init(Diner_info_list::get(), nullptr, 0);
    manager.attach(node);
    Isobus_diagnostics isobus(manager);
    isobus.set_product("FC-1", "", "Field controller"); // longer than a frame
    manager.start();
    uint8_t own = 0;
    ASSERT_TRUE(wait_until([&] { return node.address(own) && own == 128; }));
    for (unsigned spn = 1; spn <= 4; ++spn) manager.set_active(spn, 3);
    manager.set_inactive(4, 3);

    shows("vcan0 --once --csv --seconds 5 --record /tmp/log", "\n128,A000000000000001,\"FC-1 Field controller\",", 3);
    shows("/tmp/log --csv", ",3,\"voltage too high or shorted high\",1,", 3);
    shows("vcan0 --request 65227 --to 128 --seconds 2", "128  PGN 65227, 8 bytes: FF FF 04 00 03 01 FF FF\n");
    shows("vcan0 --request 65000 --to 128 --seconds 2", " PGN 65000 not supported\n");
    shows("vcan0 --clear 128 --yes",
          "0 address 128: active codes erased\naddress 128: previously active codes erased\n");
    shows("vcan0 --clear 77 --yes", "1 bus_monitor: address 77 does not answer\n");
    for (unsigned spn = 1; spn <= 250; ++spn) manager.set_active(spn, 3);
    shows("vcan0 --listen --once --csv --seconds 18", "\n128,", 250);
    run("examples/field_controller --can vcan0 --seconds 30 --faults 2 --quiet --settings /tmp/settings >/tmp/demo &");
    EXPECT_TRUE(wait_until([] { // it has something to tell when its line has had some faults
        const std::string once = run("apps/bus_monitor vcan0 --once --seconds 6");
        return once.find("\n140  1    agriculture") != std::string::npos;
    })) << read_file("/tmp/demo");
    Guest::must("ip link set vcan0 down");
    shows("vcan0 --listen --once", "1 bus_monitor: vcan0: Network is down\n");
    manager.terminate(true);
}

} // namespace
