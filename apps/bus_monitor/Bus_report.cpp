// SPDX-License-Identifier: MIT
#include "Bus_report.h"
#include "glue/diagnostics/Trouble_code_text.h"
#include <cstdarg>
#include <ctime>

using Node = Trouble_code_monitor::Node;
using namespace Trouble_code_messages;

namespace {

KAV_PRINTF(1, 2) std::string text(const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    return line;
}

/// What a terminal and a table can show.
std::string shown(const std::string& s) {
    std::string clean;
    for (const char c : s) clean += c >= ' ' && c <= '~' ? c : '?';
    return clean;
}

std::string joined(const std::vector<std::string>& fields, const char* between) {
    std::string all;
    for (const std::string& f : fields)
        if (!f.empty()) all += (all.empty() ? "" : between) + shown(f);
    return all;
}

std::string time_of(const Atime& t, const char* format) {
    const time_t seconds = t.time;
    struct tm parts;
    char line[32];
    strftime(line, sizeof line, format, localtime_r(&seconds, &parts));
    return line;
}

std::string name_text(JIN_name n) {
    if (!n.is_set()) return "NAME not heard";
    static const char* const groups[] = {"global", "road", "agriculture", "construction", "marine", "industry"};
    const unsigned group = n.industry_group();
    return text("%s, class %u.%u, function %u.%u, ECU %u, maker %u, number %u", group < 6 ? groups[group] : "group ?",
                n.device_class(), n.device_class_instance(), n.function(), n.function_instance(), n.ecu_instance(),
                n.manufacturer_code(), static_cast<unsigned>(n.identity_number()));
}

std::string lamps_text(const Lamps& lamps) {
    static const struct {
        Lamp::Kind kind;
        const char* name;
    } all[] = {{Lamp::malfunction, "malfunction"},
               {Lamp::red_stop, "red stop"},
               {Lamp::amber_warning, "amber warning"},
               {Lamp::protect, "protect"}};
    std::string s;
    for (const auto& lamp : all) {
        if (!lamps.on(lamp.kind)) continue;
        s += (s.empty() ? ", lamps: " : ", ") + std::string(lamp.name);
        if (lamps.flash(lamp.kind) != Lamp::solid)
            s += lamps.flash(lamp.kind) == Lamp::fast ? " flashes fast" : " flashes slowly";
    }
    return s;
}

std::string code_text(const Trouble_code& c) {
    std::string s = text("SPN %6u FMI %2u %s", static_cast<unsigned>(c.spn), unsigned{c.fmi}, failure_mode_text(c.fmi));
    if (c.count != Trouble_code::count_not_available) s += text(", %u times", unsigned{c.count});
    if (c.old_method) s += ", in an old form: the SPN may be wrong";
    return s;
}

std::string quoted(const std::string& s) {
    std::string q = "\"";
    for (const char c : s) q += c == '"' ? std::string("\"\"") : std::string(1, c);
    return q + "\"";
}

} // namespace

std::string Bus_report::table(const Trouble_code_monitor& monitor, const Atime& now) {
    std::string all;
    for (unsigned a = 0; (a = monitor.next(a)) < JIN::no_address; ++a) {
        const Node& n = *monitor.node(a);
        all += text("%3u  %-4s ", a, n.active.empty() ? "" : text("%zu", n.active.size()).c_str()) + name_text(n.name) +
               lamps_text(n.lamps) + "\n";
        const std::string product = joined(n.product, " "), software = joined(n.software, ", ");
        if (!product.empty()) all += "          product " + product + "\n";
        if (!software.empty()) all += "          software " + software + "\n";
        const bool doubtful = n.silent(now);
        for (const auto& c : n.active)
            all += "          " + code_text(c.code) + ", since " + time_of(c.first, "%H:%M:%S") +
                   (doubtful ? ", not told any more since " + time_of(n.told, "%H:%M:%S") : "") + "\n";
    }
    return "adr  codes\n" + (all.empty() ? "     no node was heard\n" : all);
}

std::string Bus_report::csv(const Trouble_code_monitor& monitor, const Atime& now) {
    std::string all = "address,name,product,software,spn,fmi,meaning,count,first,last,state\n";
    for (unsigned a = 0; (a = monitor.next(a)) < JIN::no_address; ++a) {
        const Node& n = *monitor.node(a);
        const std::string node = text("%u,%016llX,", a, static_cast<unsigned long long>(n.name.value)) +
                                 quoted(joined(n.product, " ")) + "," + quoted(joined(n.software, ", ")) + ",";
        if (n.active.empty()) all += node + ",,,,,,\n";
        for (const auto& c : n.active)
            all += node + text("%u,%u,\"%s\",%u,%d.%03u,%d.%03u,%s\n", static_cast<unsigned>(c.code.spn),
                               unsigned{c.code.fmi}, failure_mode_text(c.code.fmi), unsigned{c.code.count},
                               static_cast<int>(c.first.time), unsigned{c.first.millitm}, static_cast<int>(c.last.time),
                               unsigned{c.last.millitm}, n.silent(now) ? "silent" : "active");
    }
    return all;
}

std::string Bus_report::answer(const JIN_message& m) {
    std::string all =
        text("%3u  PGN %u, %u bytes:", unsigned{m.source}, static_cast<unsigned>(m.pgn), static_cast<unsigned>(m.size));
    const Msg_acknowledgment acknowledgment(m);
    if (m.pgn == JIN::pgn_acknowledgement && acknowledgment.valid()) {
        static const char* const kinds[] = {"done", "not supported", "denied", "busy"};
        const unsigned kind = acknowledgment.control();
        return all + text(" PGN %u %s\n", static_cast<unsigned>(acknowledgment.pgn()), kind < 4 ? kinds[kind] : "?");
    }
    for (unsigned i = 0; i < m.size; ++i) all += text(" %02X", unsigned{m.data[i]});
    all += "\n";
    if (m.pgn == pgn_DM1 || m.pgn == pgn_DM2) {
        Trouble_code c;
        for (unsigned i = 0; i < Msg_DM(m).num_places(); ++i)
            if (Msg_DM(m).code(i, c)) all += "          " + code_text(c) + "\n";
    }
    if (m.pgn == Identification::pgn_software)
        all += "          " + joined(Identification::read_software(m), " | ") + "\n";
    if (m.pgn == Identification::pgn_product || m.pgn == Identification::pgn_ECU)
        all += "          " + joined(Identification::read_fields(m), " | ") + "\n";
    if (m.pgn == Identification::pgn_functionalities)
        for (const auto& f : Identification::read_functionalities(m))
            all +=
                text("          %s (%u), generation %u, %zu option bytes\n", Identification::Functionality::name(f.id),
                     unsigned{f.id}, unsigned{f.generation}, f.options.size());
    return all;
}
