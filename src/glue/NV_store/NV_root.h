// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_container.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/avl_bstree.h"

class module_man;

namespace NV_store {

class NV_pointer;

/// The top of a settings tree: its lock, the module ids of its events, and the pointers between its settings.
class KAV_CAPABILITY("tree") KAV_API NV_root : public NV_container {
public:
    /// `modules` outlives the tree; null: no events can be sent, and every registration makes notifications fail.
    NV_root(module_man* modules, unsigned short id, const char* name);
    ~NV_root() override; ///< items that are left have no tree afterwards, and pointers lead nowhere

    item_type_t get_type() const override { return item_root; }
    short get_module_id(Reg_type r) const override { return r < num_reg_types ? _modules[r] : static_cast<short>(0); }

    const Module_ids& get_module_ids() const { return _modules; }

    void lock() const KAV_ACQUIRE() KAV_NO_THREAD_SAFETY_ANALYSIS { _mutex.lock(); }
    void unlock() const KAV_RELEASE() KAV_NO_THREAD_SAFETY_ANALYSIS { _mutex.unlock(); }
    bool is_locked() const { return _mutex.is_locked(); } ///< the caller holds the tree's lock

    void add_pointer(NV_pointer* p);
    void remove_pointer(NV_pointer* p);
    /// Clear the pointers that lead to an item about to go.
    void forget_target(const NV_item* target);
    static int pointer_compare(const __bsnode* a, const __bsnode* b); ///< by target address

private:
    mutable Mutex _mutex;
    c_bstree<avl_bstree, NV_pointer> _pointers;
    Module_ids _modules = {};
};

} // namespace NV_store
