// SPDX-License-Identifier: MIT
#include "Machine_settings.h"
#include <cstdio>
#include <mutex>

using Lock = std::lock_guard<Machine_settings>;

Machine_settings::Machine_settings(module_man& modules, const std::string& file)
    : NV_root(&modules, 1, "field controller"), _file(file), _store(*this, file.c_str()) {
    // A slot is called by whoever sets a value, on the same thread and with the lock that it holds.
    QObject::connect(&limits.satellites, &NV_item::value_changed,
                     [this] { printf("settings: a slot learns of %d satellites\n", int{limits.satellites.get()}); });
}

void Machine_settings::load() {
    const char* const result = to_text(_store.load());
    const Lock guard(*this);
    runs.set(runs.get() + 1);
    printf("settings in %s: %s; run %u, %llu positions before, a fault below %d satellites\n", _file.c_str(), result,
           runs.get(), positions.get(), int{limits.satellites.get()});
}

void Machine_settings::change_limit() {
    const Lock guard(*this);
    limits.satellites.set(limits.satellites.get() == 5 ? 6 : 5);
}

bool Machine_settings::save(unsigned positions_now) {
    {
        const Lock guard(*this);
        positions.set(positions.get() + positions_now);
    }
    const NV_store::Safe_result result = _store.save();
    printf("settings in %s: %s\n", _file.c_str(), to_text(result));
    return result == NV_store::Safe_result::saved;
}
