// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diagnostics/Identification.h"
#include "util/Mutex.h"
#include "util/api.h"
#include <string>
#include <vector>

class Diagnostics;

/// What this node says about itself when it is asked: software, product, ECU, compliance certificate, functionalities
/// and diagnostic protocols. The manager answers the requests; this holds the answers.
///
/// Texts are cleaned and cut as Identification::clean_field() says; what was not set is sent as empty. Any thread may
/// set; what was set last is what the next answer says.
class KAV_API Isobus_diagnostics {
public:
    /// SAE J1939 leaves out the sixth field of the ECU's identification.
    explicit Isobus_diagnostics(Diagnostics& manager, bool with_hardware_id = true);
    ~Isobus_diagnostics(); ///< takes the manager's lock; the requests are refused from now on
    Isobus_diagnostics(const Isobus_diagnostics&) = delete;
    Isobus_diagnostics& operator=(const Isobus_diagnostics&) = delete;

    /// At most 125 fields of up to 200 characters, such as the names and versions of the programs.
    void set_software(const std::vector<std::string>& fields);
    /// Up to 50 characters each.
    void set_product(const std::string& code, const std::string& brand, const std::string& model);
    /// Up to 200 characters each.
    void set_ECU(const std::string& part_number, const std::string& serial_number, const std::string& location,
                 const std::string& type, const std::string& manufacturer, const std::string& hardware_id);
    /// A request for it is refused until it is set.
    void set_certificate(const Identification::Certificate& certificate);
    /// At first the minimum control function alone, first generation, no options.
    void set_functionalities(const std::vector<Identification::Functionality>& all);
    /// The whole message as it is, in place of the above: at most 1785 bytes. Empty: the above again.
    void set_raw_functionalities(const std::vector<unsigned char>& bytes);
    /// Bits of Identification::Protocol; at first J1939-73.
    void set_protocols(uint8_t protocols);

private:
    void answer(uint32_t pgn, void (Isobus_diagnostics::*build)(Binary_message&) const);
    void build_software(Binary_message& m) const KAV_REQUIRES(_mutex);
    void build_product(Binary_message& m) const KAV_REQUIRES(_mutex);
    void build_ECU(Binary_message& m) const KAV_REQUIRES(_mutex);
    void build_certificate(Binary_message& m) const KAV_REQUIRES(_mutex);
    void build_functionalities(Binary_message& m) const KAV_REQUIRES(_mutex);
    void build_protocols(Binary_message& m) const KAV_REQUIRES(_mutex);

    Diagnostics& _manager;
    mutable Mutex _mutex;
    std::vector<std::string> _software KAV_GUARDED_BY(_mutex);
    std::vector<std::string> _product KAV_GUARDED_BY(_mutex);
    std::vector<std::string> _ecu KAV_GUARDED_BY(_mutex);
    bool _has_certificate KAV_GUARDED_BY(_mutex) = false;
    Identification::Certificate _certificate KAV_GUARDED_BY(_mutex);
    std::vector<Identification::Functionality> _functionalities KAV_GUARDED_BY(_mutex);
    std::vector<unsigned char> _raw_functionalities KAV_GUARDED_BY(_mutex);
    uint8_t _protocols KAV_GUARDED_BY(_mutex) = Identification::protocol_J1939_73;
};
