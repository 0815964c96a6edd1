// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_safe_store.h"
#include <string>

struct Fault_limits : NV_store::NV_container {
    explicit Fault_limits(NV_store::NV_root* root) : NV_container(root, root, 1, "limits") {}
    NV_store::NV_uint8 satellites{this, 1, "satellites", 5}; ///< fewer used ones are a fault
};

/// What the machine keeps from run to run, in a file that a power cut cannot spoil. Lock it to get and set.
class Machine_settings : public NV_store::NV_root {
public:
    Machine_settings(module_man& modules, const std::string& file);

    /// Take over what the run before saved, and say in one line what became of it.
    void load();
    /// Somebody turns a knob: those who asked for it are told.
    void change_limit();
    /// Add what this run did and save; says in one line whether that worked, and is false when not.
    bool save(unsigned positions_now);

    Fault_limits limits{this};
    NV_store::NV_uint32 runs{this, 2, "runs"};           ///< with this one
    NV_store::NV_uint64 positions{this, 3, "positions"}; ///< received in all runs

private:
    const std::string _file;
    NV_store::NV_safe_store _store;
};
