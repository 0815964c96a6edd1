// SPDX-License-Identifier: MIT
#include "glue/diagnostics/Isobus_diagnostics.h"
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diagnostics/Request_answers.h"
#include <algorithm>
#include <cstring>

using namespace Identification;

namespace {
constexpr uint32_t pgns[] = {pgn_software, pgn_product, pgn_ECU, pgn_certificate, pgn_functionalities, pgn_protocol};
}

Isobus_diagnostics::Isobus_diagnostics(Diagnostics& manager, bool with_hardware_id)
    : _manager(manager), _product(3), _ecu(with_hardware_id ? 6 : 5), _functionalities(1) {
    _functionalities[0].options = {0};
    answer(pgn_software, &Isobus_diagnostics::build_software);
    answer(pgn_product, &Isobus_diagnostics::build_product);
    answer(pgn_ECU, &Isobus_diagnostics::build_ECU);
    answer(pgn_certificate, &Isobus_diagnostics::build_certificate);
    answer(pgn_functionalities, &Isobus_diagnostics::build_functionalities);
    answer(pgn_protocol, &Isobus_diagnostics::build_protocols);
}

Isobus_diagnostics::~Isobus_diagnostics() {
    for (const uint32_t pgn : pgns) _manager.remove_answer(pgn);
}

void Isobus_diagnostics::answer(uint32_t pgn, void (Isobus_diagnostics::*build)(Binary_message&) const) {
    _manager.set_answer(pgn, {Request_answer::data, [this, build](JIN_grow_message& m) {
                                  if (!m.resize(JIN::max_length)) return false;
                                  const Scoped_lock held(_mutex);
                                  (this->*build)(m);
                                  return m.size > 0;
                              }});
}

void Isobus_diagnostics::set_software(const std::vector<std::string>& fields) {
    const Scoped_lock held(_mutex);
    _software = fields;
}

void Isobus_diagnostics::set_product(const std::string& code, const std::string& brand, const std::string& model) {
    const Scoped_lock held(_mutex);
    _product = {code, brand, model};
}

void Isobus_diagnostics::set_ECU(const std::string& part_number, const std::string& serial_number,
                                 const std::string& location, const std::string& type, const std::string& manufacturer,
                                 const std::string& hardware_id) {
    const Scoped_lock held(_mutex);
    const size_t n = _ecu.size();
    _ecu = {part_number, serial_number, location, type, manufacturer, hardware_id};
    _ecu.resize(n);
}

void Isobus_diagnostics::set_certificate(const Certificate& certificate) {
    const Scoped_lock held(_mutex);
    _certificate = certificate;
    _has_certificate = true;
}

void Isobus_diagnostics::set_functionalities(const std::vector<Functionality>& all) {
    const Scoped_lock held(_mutex);
    _functionalities = all;
}

void Isobus_diagnostics::set_raw_functionalities(const std::vector<unsigned char>& bytes) {
    const Scoped_lock held(_mutex);
    _raw_functionalities = bytes;
}

void Isobus_diagnostics::set_protocols(uint8_t protocols) {
    const Scoped_lock held(_mutex);
    _protocols = protocols;
}

void Isobus_diagnostics::build_software(Binary_message& m) const { Identification::build_software(m, _software); }
void Isobus_diagnostics::build_product(Binary_message& m) const { build_fields(m, _product, longest_product_field); }
void Isobus_diagnostics::build_ECU(Binary_message& m) const { build_fields(m, _ecu, longest_field); }
void Isobus_diagnostics::build_protocols(Binary_message& m) const { build_protocol(m, _protocols); }

void Isobus_diagnostics::build_certificate(Binary_message& m) const {
    if (_has_certificate)
        _certificate.build(m);
    else
        m.size = 0;
}

void Isobus_diagnostics::build_functionalities(Binary_message& m) const {
    if (_raw_functionalities.empty()) return Identification::build_functionalities(m, _functionalities);
    m.size = std::min(m.size, static_cast<uint32_t>(_raw_functionalities.size()));
    memcpy(m.data, _raw_functionalities.data(), m.size);
}
