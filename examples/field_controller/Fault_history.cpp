// SPDX-License-Identifier: MIT
#include "Fault_history.h"
#include "platform/pcf_host.h"

namespace {

constexpr unsigned store_bytes = 1 << 20;
constexpr int replay_limit_ticks = 500; // [10 ms]

} // namespace

Fault_history::Fault_history(module_man& modules, const std::string& folder, JIN_stack& node)
    : _modules(modules), _folder(folder), _node(node), _mounted(Pcf_host::mount(_folder.c_str(), store_bytes)) {
    start();
}

Fault_history::~Fault_history() {
    _identity.reset();
    _manager.reset();
    Pcf_host::unmount();
}

void Fault_history::start() {
    _manager = std::make_unique<Diagnostics>("FAULT");
    _manager->init(_modules, nullptr, 0);
    _manager->attach(_node);
    _manager->keep_codes_in((_folder + "/codes").c_str());
    _identity = std::make_unique<Isobus_diagnostics>(*_manager);
    _identity->set_product("FC-1", "", "Field controller");
    _identity->set_software({"field_controller 1.0"});
    _manager->start();
}

bool Fault_history::log(Source source, unsigned short detail, Fault fault) {
    const std::lock_guard<std::mutex> guard(_changing);
    return _manager->log_error(source, detail, fault);
}

void Fault_history::set(const Trouble_code& code, bool there) {
    const std::lock_guard<std::mutex> guard(_changing);
    if (there)
        _manager->set_active(code.spn, code.fmi);
    else
        _manager->set_inactive(code.spn, code.fmi);
}

void Fault_history::restart() {
    const std::lock_guard<std::mutex> guard(_changing);
    _recorded_before = recorded();
    _identity.reset();
    _manager.reset();
    Pcf_host::mount(_folder.c_str(), store_bytes); // as after a power cut: what was open is gone
    start();
}

void Fault_history::replay(Source source) {
    _printer.set_filter(source, 0, 0, 0xFFFFFFFF);
    if (_manager->request_history(&_printer)) _printer.finished.try_acquire(replay_limit_ticks);
}
