// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_item.h"
#include "glue/NV_store/NV_container.h"
#include "glue/NV_store/NV_root.h"
#include "glue/cds/CDS_remote.h"
#include "glue/diner/Trace.h"
#include "util/Bugger.h"
#include "util/Debug_print.h"
#include <QMetaType>
#include <cstdio>
#include <cstring>

namespace NV_store {
namespace {

/// Holds the tree's lock unless the caller does already.
class Tree_guard {
public:
    explicit Tree_guard(const NV_item& item) KAV_NO_THREAD_SAFETY_ANALYSIS : _root(item.get_root()) {
        if (_root && _root->is_locked()) _root = nullptr;
        if (_root) _root->lock();
    }
    ~Tree_guard() KAV_NO_THREAD_SAFETY_ANALYSIS {
        if (_root) _root->unlock();
    }
    Tree_guard(const Tree_guard&) = delete;
    Tree_guard& operator=(const Tree_guard&) = delete;

private:
    NV_root* _root;
};

} // namespace

NV_item::NV_item(NV_container* parent_container, unsigned short settings_id, const char* item_name)
    : name(item_name), parent(parent_container), id(settings_id) {
    // Connections across threads look the argument up by its name in the signal.
    static const int type = qRegisterMetaType<NV_item*>("NV_item*");
    static_cast<void>(type);
    if (parent) parent->add_child(this);
}

NV_item::~NV_item() {
    if (parent) parent->remove_child(this);
}

void NV_item::leave_tree(NV_root& tree) { tree.forget_target(this); }

Data_item* NV_item::find_data_item(const char* path) { return _search(path); }
Data_item* NV_item::find_data_item(unsigned short data_id) { return data_id == get_data_id() ? this : nullptr; }
NV_item* NV_item::_search(const char*) { return nullptr; }
NV_root* NV_item::get_root() const { return parent ? parent->get_root() : nullptr; }

void NV_item::get_path_name(char* buffer, int size) const {
    if (size < 1) return;
    if (parent && !parent->children_named())
        snprintf(buffer, static_cast<size_t>(size), "%d", parent->get_my_index(this));
    else
        strncpy(buffer, name, static_cast<size_t>(size));
    buffer[size - 1] = 0;
}

void NV_item::serialise_structure(CDS::Remote::Send_buffer& out, int) {
    char text[256];
    const int n = snprintf(text, sizeof text, "%x:%x:", static_cast<unsigned>(get_type_byte()),
                           static_cast<unsigned>(get_data_id()));
    get_path_name(text + n, static_cast<int>(sizeof text) - n);
    out.str_append(text);
}

short NV_item::get_module_id(Reg_type r) const { return parent ? parent->get_module_id(r) : static_cast<short>(0); }

void NV_item::lock() const KAV_NO_THREAD_SAFETY_ANALYSIS {
    if (NV_root* root = get_root()) root->lock();
}

void NV_item::unlock() const KAV_NO_THREAD_SAFETY_ANALYSIS {
    if (NV_root* root = get_root()) root->unlock();
}

// ---- saving

bool NV_item::wanted(const NV_iterator& it, bool& valid) const {
    valid = true;
    switch (it.mode) {
    case NV_iterator::mode_journal_1:
        return flags & changed_for_journal_1;
    case NV_iterator::mode_journal_2:
        return flags & changed_for_journal_2;
    case NV_iterator::mode_write:
        return !(flags & not_loaded);
    default:
        valid = false;
        return false;
    }
}

bool NV_item::deserialise_unknown_handoff(NV_iterator* it) { return it->skip_record(); }

// ---- waiters

void NV_item::register_waiter(waiter_descriptor* waiter, unsigned int value, bool skip_unforced) {
    const Tree_guard guard(*this);
    _waiters.add(NV_waiter_reg(waiter, value, skip_unforced));
}

void NV_item::autoreg_waiter(waiter_descriptor* waiter, bool skip_unforced) {
    const Tree_guard guard(*this);
    _waiters.add(NV_waiter_reg(waiter, this, skip_unforced));
}

void NV_item::register_access_waiter(waiter_descriptor* waiter, Access_base* access, bool skip_unforced) {
    const Tree_guard guard(*this);
    _waiters.add(NV_waiter_reg(waiter, access, skip_unforced));
}

void NV_item::register_virt_access_waiter(waiter_descriptor* waiter, Virt_access* virt, bool skip_unforced) {
    const Tree_guard guard(*this);
    _waiters.add(NV_waiter_reg(waiter, virt, skip_unforced));
}

bool NV_item::unregister_waiter(waiter_descriptor* waiter, unsigned int value, bool skip_unforced) {
    const Tree_guard guard(*this);
    return _waiters.remove(NV_waiter_reg(waiter, value, skip_unforced));
}

bool NV_item::autounreg_waiter(waiter_descriptor* waiter, bool skip_unforced) {
    const Tree_guard guard(*this);
    return _waiters.remove(NV_waiter_reg(waiter, this, skip_unforced));
}

bool NV_item::unregister_access_waiter(waiter_descriptor* waiter, Access_base* access, bool skip_unforced) {
    const Tree_guard guard(*this);
    return _waiters.remove(NV_waiter_reg(waiter, access, skip_unforced));
}

bool NV_item::unregister_virt_access_waiter(waiter_descriptor* waiter, Virt_access* virt, bool skip_unforced) {
    const Tree_guard guard(*this);
    return _waiters.remove(NV_waiter_reg(waiter, virt, skip_unforced));
}

bool NV_item::is_event(const waiter_event& e) const {
    const NV_root* const root = get_root();
    if (!root) {
        Debug_print::dprint("NULL ROOT\r\n");
        return false;
    }
    return e.module_id == root->get_module_id(reg_item) && e.data == reinterpret_cast<event_word_t>(this);
}

// ---- notification

bool NV_item::notify_updated(bool changed, bool mark, bool force, notify_t how, const NV_root* root) {
    if (!changed && !force) return true;
    if (changed) {
        flags = static_cast<unsigned char>((flags | changed_for_journal_2) & ~not_loaded);
        if (mark) flags = static_cast<unsigned char>(flags | changed_for_journal_1);
    }
    bool sent = true;
    if ((how & notify_waiters) && !_waiters.empty()) {
        const Tree_guard guard(*this);
        sent = _waiters.notify_updated(root ? &root->get_module_ids() : nullptr, force);
    }
    if (changed && update_listener) update_listener->updated(1);
    if ((how & notify_parents) && get_type() != item_root && parent && sent)
        sent = parent->notify_updated(changed, mark, force, how, root);
    Q_EMIT value_changed(this);
    return sent;
}

bool NV_item::notify_updated(bool changed, notify_t how) {
    if (changed && Trace::on(Trace::setting_changed))
        Trace::put(Trace::setting_changed, 0, get_data_id(), parent ? parent->get_data_id() : 0u);
    return notify_updated(changed, true, false, how, get_root());
}

bool NV_item::signal_all(NV_root* root) { return notify_updated(false, false, true, notify_waiters, root); }

// ---- handles

namespace {

NV_item& item_of(const Access_base& access, const char* complaint) {
    if (!access.item) Bugger::report_bug(complaint);
    return *access.item;
}

} // namespace

void Access_base::lock() const { item_of(*this, "NV_store: Tried to lock with no init").lock(); }
void Access_base::unlock() const { item_of(*this, "NV_store: Tried to unlock with no init").unlock(); }

void Access_base::register_waiter(waiter_descriptor* waiter, bool skip_unforced) {
    item_of(*this, "NV_store: Tried to reg with no init").register_access_waiter(waiter, this, skip_unforced);
}

bool Access_base::unregister_waiter(waiter_descriptor* waiter, bool skip_unforced) {
    return item_of(*this, "NV_store: Tried to unreg with no init")
        .unregister_access_waiter(waiter, this, skip_unforced);
}

Virt_access::~Virt_access() = default;

void Virt_access::autoreg(waiter_descriptor* waiter, bool skip_unforced) {
    item_of(access, "NV_store: Tried to autoreg with no init").register_virt_access_waiter(waiter, this, skip_unforced);
}

bool Virt_access::autounreg(waiter_descriptor* waiter, bool skip_unforced) {
    return item_of(access, "NV_store: Tried to autounreg with no init")
        .unregister_virt_access_waiter(waiter, this, skip_unforced);
}

} // namespace NV_store
