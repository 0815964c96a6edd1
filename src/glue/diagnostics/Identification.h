// SPDX-License-Identifier: MIT
#pragma once
#include "glue/vorn/Binary_message.h"
#include "util/api.h"
#include <string>
#include <vector>

/// The messages by which a node of ISO 11783 says what it is, as values with a builder and a reader for each. Builders
/// write into the bytes of the message they are given and set its size; one that has no room becomes empty.
namespace Identification {

enum Pgn : uint32_t {
    pgn_product = 0xFC8D,         ///< 64653
    pgn_functionalities = 0xFC8E, ///< 64654
    pgn_protocol = 0xFD32,        ///< 64818
    pgn_certificate = 0xFD42,     ///< 64834
    pgn_ECU = 0xFDC5,             ///< 64965
    pgn_software = 0xFEDA         ///< 65242
};

constexpr unsigned longest_field = 200;        ///< [characters] of the ECU and the software
constexpr unsigned longest_product_field = 50; ///< [characters]
constexpr unsigned max_software_fields = 125;

/// A field's text as it may be sent: cut to `longest`, and an underscore for each '*', which ends a field, and for each
/// control character. Bytes above 127 stay.
KAV_API std::string clean_field(const std::string& text, unsigned longest);

/// Fields, each with a '*' behind it, an empty one as the '*' alone. Fields for which the message has no room are sent
/// as empty; of those that cannot even be empty, none.
KAV_API void build_fields(Binary_message& m, const std::vector<std::string>& fields, unsigned longest);
/// What stands before each '*'; what is behind the last one too unless it is empty or the FF that fills a frame.
KAV_API std::vector<std::string> read_fields(const Binary_message& m, unsigned first_byte = 0);

/// Software: the number of fields in one byte, then the fields.
KAV_API void build_software(Binary_message& m, const std::vector<std::string>& fields);
KAV_API std::vector<std::string> read_software(const Binary_message& m);

/// Compliance certificate of the ISOBUS test. Where reference number and message revision stand is not known: the bytes
/// that the laboratory's papers give are set as `raw` then, and the values beside are not looked at.
struct KAV_API Certificate {
    enum Laboratory : uint8_t { self_certified = 0, AEF_laboratory = 1, none = 3 };

    unsigned year = 2000;  ///< of the protocol, 2000 to 2061
    unsigned revision = 0; ///< 0 to 31
    Laboratory laboratory = none;
    unsigned laboratory_id = 0; ///< 0 to 2047
    bool is_raw = false;
    unsigned char raw[8] = {};

    void build(Binary_message& m) const;
    bool read(const Binary_message& m); ///< false when it is shorter than 8 bytes; `raw` holds all of them then
};

/// One thing that a node can do in the sense of ISO 11783.
struct KAV_API Functionality {
    /// Of one source each, and not tried with other makers' nodes; least certain are 3, 4 and 18.
    enum Id : uint8_t {
        minimum_control_function = 0,
        terminal_server = 1,
        terminal_client = 2,
        auxiliary_old_inputs = 3,
        auxiliary_old_functions = 4,
        auxiliary_inputs = 5,
        auxiliary_functions = 6,
        task_basic_server = 7,
        task_basic_client = 8,
        task_geo_server = 9,
        task_geo_client = 10,
        task_section_server = 11,
        task_section_client = 12,
        basic_tractor_server = 13,
        basic_tractor_client = 14,
        implement_management_server = 15,
        implement_management_client = 16,
        file_server = 17,
        file_client = 18
    };

    uint8_t id = minimum_control_function;
    uint8_t generation = 1;
    std::vector<unsigned char> options; ///< at most 255 bytes; their meaning belongs to the id

    static const char* name(unsigned id); ///< in words, "functionality" for one that is not known
};
/// FF, how many, then for each its id, generation, number of option bytes, and these; filled with FF to 8 bytes. Those
/// for which there is no room are left out.
KAV_API void build_functionalities(Binary_message& m, const std::vector<Functionality>& all);
KAV_API std::vector<Functionality> read_functionalities(const Binary_message& m);

/// Diagnostic protocols that the node speaks, as bits.
enum Protocol : uint8_t { protocol_J1939_73 = 1, protocol_ISO_14230 = 2, protocol_ISO_15765_3 = 4 };
KAV_API void build_protocol(Binary_message& m, uint8_t protocols);

} // namespace Identification
