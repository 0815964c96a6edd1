// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_pointer.h"
#include "glue/diner/module_man.h"
#include <cstdint>

namespace NV_store {

NV_root::NV_root(module_man* modules, unsigned short settings_id, const char* text)
    : NV_container(nullptr, this, settings_id, text) {
    _pointers.create(&pointer_compare);
    if (modules) modules->init_module_array(_modules, num_reg_types, true);
}

NV_root::~NV_root() {
    release_children(); // while there is a list of pointers that they can leave
    while (NV_pointer* p = _pointers.first()) p->point_at(nullptr);
    root = nullptr;
}

void NV_root::add_pointer(NV_pointer* p) { _pointers.insert(p); }
void NV_root::remove_pointer(NV_pointer* p) { _pointers.remove(p); }

static uintptr_t target_of(const avl_bsnode* n) {
    return reinterpret_cast<uintptr_t>(static_cast<const NV_pointer*>(n)->get());
}

/// -1, 0 or 1.
static int order(uintptr_t a, uintptr_t b) { return (a > b) - (a < b); }

int NV_root::pointer_compare(const __bsnode* a, const __bsnode* b) {
    return order(target_of(static_cast<const avl_bsnode*>(a)), target_of(static_cast<const avl_bsnode*>(b)));
}

namespace {

class By_target : public avl_bstree::Searcher {
public:
    explicit By_target(const NV_item* target) : _target(reinterpret_cast<uintptr_t>(target)) {}
    int compare(const avl_bsnode* n) const override { return order(target_of(n), _target); }

private:
    uintptr_t _target;
};

} // namespace

void NV_root::forget_target(const NV_item* target) {
    By_target by_target(target);
    while (NV_pointer* p = _pointers.find(nullptr, bst_equal, nullptr, &by_target)) p->point_at(nullptr);
}

} // namespace NV_store
