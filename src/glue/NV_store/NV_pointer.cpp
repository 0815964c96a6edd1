// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_pointer.h"
#include "glue/NV_store/NV_path.h"
#include "glue/NV_store/NV_root.h"
#include "glue/cds/CDS_remote.h"
#include <cstdio>
#include <cstring>

namespace NV_store {

NV_pointer::NV_pointer(NV_container* parent_container, unsigned short settings_id, const char* text)
    : NV_item(parent_container, settings_id, text) {}

NV_pointer::~NV_pointer() { point_at(nullptr); }

/// Only pointers that lead somewhere are listed; the list is ordered by target, so a pointer leaves it to change.
void NV_pointer::point_at(NV_item* target) {
    if (_listed_at) _listed_at->remove_pointer(this);
    _target = target;
    _listed_at = target ? get_root() : nullptr;
    if (_listed_at) _listed_at->add_pointer(this);
}

void NV_pointer::leave_tree(NV_root& tree) {
    point_at(nullptr);
    NV_item::leave_tree(tree);
}

bool NV_pointer::can_point_at(const NV_item* target) const {
    if (!target) return true;
    NV_root* const root = get_root();
    NV_path path;
    return root && target != root && root->build_path(&path, target) && root->follow_path(path) == target;
}

bool NV_pointer::_set(NV_item* target, notify_t how) {
    if (!can_point_at(target)) return false;
    const bool changed = target != _target;
    if (changed) point_at(target);
    return how == notify_none || notify_updated(changed, how);
}

bool NV_pointer::set_default(bool) {
    _set(nullptr, notify_all);
    return true;
}

// ---- stored record

bool NV_pointer::serialise(NV_iterator* it) {
    bool valid;
    if (!wanted(*it, valid)) return valid;
    NV_path path;
    if (_target) get_root()->build_path(&path, _target); // set() takes only what has one
    if (!it->push_header(header(marker_value)) || !path.serialise(it)) return false;
    saved();
    return true;
}

bool NV_pointer::deserialise(NV_iterator* it) {
    Record_header stored;
    if (!it->pop_header(stored) || !(stored == header(marker_value))) return false;
    NV_path path;
    if (path.deserialise(it)) {
        NV_item* const target = path.size() && get_root() ? get_root()->follow_path(path) : nullptr;
        point_at(target);
    }
    loaded();
    return true;
}

// ---- text and remote format

void NV_pointer::_print(Debug::Dumper& dumper) const {
    char text[256];
    _to_string(text, sizeof text);
    dumper.field(name, text);
}

/// Names from below the root down to the item, joined by '/'. The characters written.
static int path_text(const NV_item* item, char* buffer, int size) {
    if (!item->get_parent()) return 0;
    int n = path_text(item->get_parent(), buffer, size);
    if (n > 0 && n < size - 1) buffer[n++] = '/';
    if (n < size - 1) {
        item->get_path_name(buffer + n, size - n);
        n += static_cast<int>(strlen(buffer + n));
    }
    return n;
}

int NV_pointer::_to_string(char* buffer, int size) const {
    if (size < 1) return 0;
    buffer[0] = 0;
    const int n = _target ? path_text(_target, buffer, size) : 0;
    buffer[n] = 0;
    return n;
}

const char* NV_pointer::_from_string(const char* text) {
    const size_t n = strcspn(text, ",}");
    char path[256];
    if (n >= sizeof path) return nullptr;
    memcpy(path, text, n);
    path[n] = 0;
    NV_item* target = nullptr;
    if (n > 0) {
        target = get_root() ? get_root()->_search(path) : nullptr;
        if (!target) return nullptr;
    }
    if (!can_point_at(target)) return nullptr;
    _set(target, notify_all);
    return text + n;
}

Data_item::Serial_ret NV_pointer::serialise(CDS::Remote::Send_buffer& out, unsigned short& start_id) {
    if (serial_action_started(start_id))
        out.append_UINT16(_target ? _target->get_data_id() : static_cast<unsigned short>(0));
    return serial_ok();
}

Data_item::Serial_ret NV_pointer::deserialise(CDS::Remote::Receive_buffer& in, unsigned short& start_id) {
    if (!serial_action_started(start_id)) return serial_ok();
    unsigned short data_id;
    if (!in.pop_UINT16(data_id)) return serial_fail();
    NV_root* const root = get_root();
    NV_item* target = data_id ? root : nullptr;
    while (target && target->get_data_id() != data_id) target = root->get_next_in_tree(target);
    if ((data_id && !target) || !can_point_at(target)) return serial_fail();
    _set(target, notify_all);
    return serial_ok();
}

} // namespace NV_store
