// SPDX-License-Identifier: MIT
// Reads a log of a CAN bus as `candump -L` writes it, and shows what each node said of itself: the one below, in which
// a terminal and a controller tell what they are and what is wrong, and a third node falls silent, or with `bus_log
// FILE` another one.
//
// Prints:
//     address 5, function 0 of industry group 0, maker 2000, number 3
//         SPN 77 FMI 3 voltage too high or shorted high, 1 times, told from 200 to 200 ms
//         tells nothing any more
//     address 38, function 29 of industry group 2, maker 2000, number 7
//         product: 'VT' 'Terminal' 'T-800'
//         software: 'V2.1'
//         ECU: 'P-7' '4711' '' '' 'Terminals Ltd' ''
//         universal terminal server, generation 3, 0 bytes of options
//         file server, generation 1, 1 bytes of options
//         certificate of 2024, revision 21, by laboratory 1443
//         speaks ISO 15765-3
//     address 140, function 130 of industry group 2, maker 2000, number 4711
//         SPN 1234 FMI 31 condition exists, 2 times, told from 100 to 4200 ms
//         SPN 520192 FMI 12 bad device or component, 126 times, told from 1200 to 4200 ms, in an old form
//         stop! The lamp flashes.
//         was: SPN 99 FMI 1
//         was: SPN 98 FMI 1
//     lines that are no frames of such a bus: 1, long messages that are not whole: 1
#include "glue/diagnostics/Trouble_code_monitor.h"
#include "glue/diagnostics/Trouble_code_text.h"
#include "glue/jin/JIN_assembler.h"
#include "glue/jin/JIN_frame.h"
#include <cstdio>
#include <fstream>
#include <sstream>

namespace {

/// Begins when the nodes run, with the question for their addresses. Shortened: without the other questions, and
/// without most of what repeats every second. The terminal begins a long message again, and later moves the controller
/// to another address; a frame of 11 bits is of no such bus.
const char recorded[] = R"(
(1700000000.000000) can0 18EAFFFE#00EE00
(1700000000.010000) can0 18EEFF05#030000FA00000000
(1700000000.020000) can0 18EEFF26#070000FA001D00A0
(1700000000.030000) can0 18EEFF80#671200FA008200A0
(1700000000.050000) can0 7DF#0201
(1700000000.100000) can0 18FECA80#10DFD2041F01FFFF
(1700000000.200000) can0 18FECA05#FFFF4D000301FFFF
(1700000001.100000) can0 1CECFF80#200A0002FFCAFE00
(1700000001.150000) can0 1CEBFF80#0110CFD2041F0200
(1700000001.200000) can0 1CEBFF80#02F0ECFEFFFFFFFF
(1700000001.450000) can0 1CECFF26#20120003FF8DFC00
(1700000001.500000) can0 1CECFF26#20120003FF8DFC00
(1700000001.550000) can0 1CEBFF26#0156542A5465726D
(1700000001.600000) can0 1CEBFF26#02696E616C2A542D
(1700000001.650000) can0 1CEBFF26#033830302AFFFFFF
(1700000001.800000) can0 18FEDA26#0156322E312AFFFF
(1700000002.100000) can0 1CECFF26#201A0004FFC5FD00
(1700000002.150000) can0 1CEBFF26#01502D372A343731
(1700000002.200000) can0 1CEBFF26#02312A2A2A546572
(1700000002.250000) can0 1CEBFF26#036D696E616C7320
(1700000002.300000) can0 1CEBFF26#044C74642A2AFFFF
(1700000002.600000) can0 1CECFF26#20090002FF8EFC00
(1700000002.650000) can0 1CEBFF26#01FF020103001101
(1700000002.700000) can0 1CEBFF26#020100FFFFFFFFFF
(1700000003.000000) can0 18FD4226#5873B40000FFFFFF
(1700000003.100000) can0 18FD3226#05FFFFFFFFFFFFFF
(1700000003.200000) can0 1CECFF26#20090002FFD8FE00
(1700000003.250000) can0 1CEBFF26#01671200FA008200
(1700000003.300000) can0 1CEBFF26#02A08CFFFFFFFFFF
(1700000003.310000) can0 18EEFF8C#671200FA008200A0
(1700000004.100000) can0 1CECFF8C#200A0002FFCAFE00
(1700000004.150000) can0 1CEBFF8C#0110CFD2041F0200
(1700000004.200000) can0 1CEBFF8C#02F0ECFEFFFFFFFF
(1700000004.600000) can0 1CECFF8C#200A0002FFCBFE00
(1700000004.650000) can0 1CEBFF8C#0110CF6300010162
(1700000004.700000) can0 1CEBFF8C#02000104FFFFFFFF
)";

void show_fields(const char* what, const std::vector<std::string>& fields) {
    if (fields.empty()) return;
    printf("    %s:", what);
    for (const std::string& f : fields) printf(" '%s'", f.c_str());
    printf("\n");
}

void show_codes(const Trouble_code_monitor::Node& node, const Atime& begin, const Atime& end) {
    for (const auto& [code, first, last] : node.active)
        printf("    SPN %u FMI %d %s, %d times, told from %d to %d ms%s\n", code.spn, int{code.fmi},
               failure_mode_text(code.fmi), int{code.count}, first - begin, last - begin,
               code.old_method ? ", in an old form" : "");
    if (node.silent(end)) printf("    tells nothing any more\n");
    if (node.lamps.on(Lamp::red_stop))
        printf("    stop!%s\n", node.lamps.flash(Lamp::red_stop) == Lamp::solid ? "" : " The lamp flashes.");
    for (const Trouble_code& code : node.previous) printf("    was: SPN %u FMI %d\n", code.spn, int{code.fmi});
}

void show_identification(const Trouble_code_monitor::Node& node) {
    show_fields("product", node.product);
    show_fields("software", node.software);
    show_fields("ECU", node.ECU);
    for (const auto& f : node.functionalities)
        printf("    %s, generation %d, %zu bytes of options\n", f.name(f.id), int{f.generation}, f.options.size());
    if (node.has_certificate)
        printf("    certificate of %u, revision %u, by laboratory %u\n", node.certificate.year,
               node.certificate.revision, node.certificate.laboratory_id);
    if (node.has_protocols && node.protocols & Identification::protocol_ISO_15765_3) printf("    speaks ISO 15765-3\n");
}

} // namespace

int main(int argc, char** argv) {
    std::istringstream own(recorded + 1);
    std::ifstream file(argc > 1 ? argv[1] : "");
    std::istream& log = argc > 1 ? static_cast<std::istream&>(file) : own;
    if (!log) {
        perror(argv[1]);
        return 1;
    }

    Trouble_code_monitor monitor;
    Atime begin(false), now(false);
    JIN_assembler assembler([&](const JIN_message& m) { monitor.take(m, now); });
    JIN_frame frame;
    unsigned others = 0;
    for (std::string line; std::getline(log, line);) {
        if (!frame.read(line)) {
            ++others;
            continue;
        }
        now.time = static_cast<int32_t>(frame.us / 1000000);
        now.millitm = static_cast<unsigned short>(frame.us / 1000 % 1000);
        if (begin.time == 0) begin = now;
        assembler.frame(frame.identifier, frame.bytes, frame.size, frame.us / 1000);
    }
    for (unsigned a = 0; (a = monitor.next(a)) < JIN::no_address; ++a) {
        const Trouble_code_monitor::Node& node = *monitor.node(a);
        printf("address %u", a);
        if (node.name.is_set())
            printf(", function %u of industry group %u, maker %u, number %u", node.name.function(),
                   node.name.industry_group(), node.name.manufacturer_code(), node.name.identity_number());
        printf("\n");
        show_identification(node);
        show_codes(node, begin, now);
    }
    printf("lines that are no frames of such a bus: %u, long messages that are not whole: %u\n", others,
           assembler.incomplete());
}
