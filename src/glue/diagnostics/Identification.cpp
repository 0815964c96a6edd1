// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Identification.h"
#include <algorithm>
#include <cstring>

namespace Identification {
namespace {

constexpr char delimiter = '*';

/// `n` bytes of `fill` to write into; false when there is no room for them.
bool begin(Binary_message& m, unsigned n, int fill = 0xFF) {
    m.size = m.size < n ? 0 : n;
    memset(m.data, fill, m.size);
    return m.size != 0;
}

/// Fields from a byte on, into a message of `room` bytes; what follows them.
unsigned write_fields(Binary_message& m, unsigned at, const std::vector<std::string>& fields, unsigned longest) {
    const unsigned room = m.size;
    size_t left = fields.size(); // each needs its '*'
    for (const std::string& field : fields) {
        if (at + 1 > room) break;
        const std::string text = clean_field(field, longest);
        if (at + text.size() + left <= room) {
            memcpy(m.data + at, text.data(), text.size());
            at += static_cast<unsigned>(text.size());
        }
        m.data[at++] = delimiter;
        --left;
    }
    return at;
}

} // namespace

std::string clean_field(const std::string& text, unsigned longest) {
    std::string clean = text.substr(0, longest);
    for (char& c : clean)
        if (c == delimiter || static_cast<unsigned char>(c) < ' ' || c == 0x7F) c = '_';
    return clean;
}

void build_fields(Binary_message& m, const std::vector<std::string>& fields, unsigned longest) {
    m.size = write_fields(m, 0, fields, longest);
}

std::vector<std::string> read_fields(const Binary_message& m, unsigned first_byte) {
    std::vector<std::string> fields;
    std::string field;
    for (unsigned i = first_byte; i < m.size; ++i) {
        const char c = static_cast<char>(m.data[i]);
        if (c != delimiter) {
            field += c;
            continue;
        }
        fields.push_back(clean_field(field, longest_field));
        field.clear();
    }
    while (!field.empty() && field.back() == static_cast<char>(0xFF)) field.pop_back();
    if (!field.empty()) fields.push_back(clean_field(field, longest_field));
    return fields;
}

void build_software(Binary_message& m, const std::vector<std::string>& fields) {
    if (m.size < 2) {
        m.size = 0;
        return;
    }
    std::vector<std::string> sent(
        fields.begin(), fields.begin() + std::min<std::ptrdiff_t>(std::ptrdiff_t(fields.size()), max_software_fields));
    if (sent.empty()) sent.emplace_back(); // one that is empty
    const unsigned end = write_fields(m, 1, sent, longest_field);
    m.data[0] = static_cast<unsigned char>(std::min<size_t>(sent.size(), m.size - 1));
    m.size = end;
}

std::vector<std::string> read_software(const Binary_message& m) { return read_fields(m, 1); }

//     byte 1  bits 1-6 year - 2000, bits 7-8 revision bits 0-1
//     byte 2  bit 1 revision bit 2, bits 2-3 laboratory, bits 4-5 revision bits 3-4, bits 6-8 laboratory id bits 0-2
//     byte 3  laboratory id bits 3-10
//     bytes 4, 5  what was tested by the second edition; 0 since the third
void Certificate::build(Binary_message& m) const {
    if (!begin(m, sizeof raw)) return;
    if (is_raw) {
        memcpy(m.data, raw, sizeof raw);
        return;
    }
    const unsigned years = std::min(std::max(year, 2000u) - 2000, 63u);
    m.data[0] = static_cast<unsigned char>(years | (revision & 3) << 6);
    m.data[1] = static_cast<unsigned char>((revision >> 2 & 1) | (laboratory & 3u) << 1 | (revision >> 3 & 3) << 3 |
                                           (laboratory_id & 7) << 5);
    m.data[2] = static_cast<unsigned char>(laboratory_id >> 3);
    m.data[3] = m.data[4] = 0;
}

bool Certificate::read(const Binary_message& m) {
    if (!m.get_data(raw, sizeof raw)) return false;
    is_raw = true;
    year = 2000u + (raw[0] & 63);
    revision = static_cast<unsigned>(raw[0] >> 6 | (raw[1] & 1) << 2 | (raw[1] >> 3 & 3) << 3);
    laboratory = static_cast<Laboratory>(raw[1] >> 1 & 3);
    laboratory_id = static_cast<unsigned>(raw[1] >> 5 | raw[2] << 3);
    return true;
}

const char* Functionality::name(unsigned id) {
    static const char* const names[] = {"minimum control function",
                                        "universal terminal server",
                                        "universal terminal client",
                                        "old auxiliary inputs",
                                        "old auxiliary functions",
                                        "auxiliary inputs",
                                        "auxiliary functions",
                                        "task controller basic server",
                                        "task controller basic client",
                                        "task controller geo server",
                                        "task controller geo client",
                                        "section control server",
                                        "section control client",
                                        "tractor ECU server",
                                        "tractor ECU client",
                                        "tractor implement management server",
                                        "tractor implement management client",
                                        "file server",
                                        "file server client"};
    return id < sizeof names / sizeof names[0] ? names[id] : "functionality";
}

void build_functionalities(Binary_message& m, const std::vector<Functionality>& all) {
    const unsigned room = m.size;
    if (!begin(m, 8)) return;
    unsigned at = 2, n = 0;
    for (const Functionality& f : all) {
        const auto options = static_cast<unsigned>(f.options.size());
        if (options > 255 || at + 3 + options > room || n == 255) continue;
        m.data[at] = f.id;
        m.data[at + 1] = f.generation;
        m.data[at + 2] = static_cast<unsigned char>(options);
        if (options) memcpy(m.data + at + 3, f.options.data(), options);
        at += 3 + options;
        ++n;
    }
    m.data[1] = static_cast<unsigned char>(n);
    m.size = std::max(at, 8u);
}

std::vector<Functionality> read_functionalities(const Binary_message& m) {
    std::vector<Functionality> all;
    unsigned at = 2;
    for (unsigned left = m.get_uint8(1); left > 0 && m.holds(at, 3); --left) {
        const unsigned options = m.data[at + 2];
        if (!m.holds(at + 3, options)) break;
        Functionality f;
        f.id = m.data[at];
        f.generation = m.data[at + 1];
        f.options.assign(m.data + at + 3, m.data + at + 3 + options);
        all.push_back(f);
        at += 3 + options;
    }
    return all;
}

void build_protocol(Binary_message& m, uint8_t protocols) {
    if (begin(m, 8)) m.data[0] = protocols;
}

} // namespace Identification
