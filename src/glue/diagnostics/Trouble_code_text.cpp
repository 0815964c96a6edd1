// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Trouble_code_text.h"
#include <algorithm>
#include <cstdio>
#include <cstdlib>

const char* failure_mode_text(unsigned fmi) {
    // In our own words; the meanings are those that every J1939 manual gives.
    static const char* const texts[] = {"above normal, most severe",
                                        "below normal, most severe",
                                        "erratic or implausible",
                                        "voltage too high or shorted high",
                                        "voltage too low or shorted low",
                                        "current too low or open circuit",
                                        "current too high or grounded circuit",
                                        "mechanical system does not respond",
                                        "abnormal frequency or pulse width",
                                        "abnormal update rate",
                                        "abnormal rate of change",
                                        "failure mode not known",
                                        "bad device or component",
                                        "out of calibration",
                                        "special instructions",
                                        "above normal, least severe",
                                        "above normal, moderately severe",
                                        "below normal, least severe",
                                        "below normal, moderately severe",
                                        "received data in error",
                                        "data drifted high",
                                        "data drifted low"};
    constexpr unsigned known = sizeof texts / sizeof texts[0];
    return fmi < known ? texts[fmi] : fmi == 31 ? "condition exists" : "reserved";
}

namespace {
constexpr size_t line_length = 17; // [bytes] so that 15 lines fill a chunk of the checksummed file
constexpr char form[] = "%05X %02X %02X %c   \n";
} // namespace

std::string to_text(const Trouble_code_table& codes) {
    std::string text;
    text.reserve(codes.size() * line_length);
    for (unsigned i = 0; const auto* e = codes[i]; ++i) {
        const Trouble_code c = e->code();
        char line[40];
        snprintf(line, sizeof line, form, static_cast<unsigned>(c.spn), unsigned{c.fmi}, unsigned{c.count},
                 e->state() == Trouble_code_table::previous ? 'P' : 'A');
        text += line;
    }
    return text;
}

unsigned from_text(const std::string& text, Trouble_code_table& codes) {
    unsigned good = 0;
    for (size_t at = 0; at + line_length <= text.size(); at += line_length) {
        const std::string line = text.substr(at, line_length);
        char* end;
        const auto number = [&](size_t from, unsigned long most) {
            const unsigned long value = strtoul(line.c_str() + from, &end, 16);
            return value <= most ? value : most + 1;
        };
        const auto spn = static_cast<uint32_t>(number(0, Trouble_code::spn_not_available));
        const auto fmi = static_cast<unsigned>(number(6, Trouble_code::max_fmi));
        const unsigned long count = number(9, Trouble_code::max_count);
        char again[40];
        snprintf(again, sizeof again, form, static_cast<unsigned>(spn), fmi, static_cast<unsigned>(count), line[12]);
        if (line != again || !Trouble_code::valid(spn, fmi) || count < 1 || count > Trouble_code::max_count) continue;
        if (line[12] != 'A' && line[12] != 'P') continue;
        ++good;
        const uint32_t key = Trouble_code::key(spn, fmi);
        auto* e = codes.find(key);
        if (!e) e = codes.add(key, Trouble_code_table::previous);
        if (e) e->count = static_cast<uint8_t>(count);
    }
    return good;
}
