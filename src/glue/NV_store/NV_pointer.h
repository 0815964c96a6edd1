// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_item.h"
#include "util/api.h"
#include "util/avl_bstree.h"

namespace NV_store {

/// A setting that refers to another item of the same tree, or to none. Stored as the path from the root; as text the
/// names joined by '/'; in the remote format the target's Data_item identifier, 0 for none. A target that is destroyed
/// or leaves the tree leaves none, without a notification.
class KAV_API NV_pointer : public NV_item, public avl_bsnode {
public:
    NV_pointer(NV_container* parent, unsigned short id, const char* name);
    ~NV_pointer() override;

    NV_item* get() const { return _target; } ///< null: none
    /// Whether a stored path finds the item. It does not find the root itself, nor what is in another tree or more than
    /// 16 levels below the root; of the elements of a list that share an identifier it finds only the first. Null: yes.
    /// O(depth, siblings)
    bool can_point_at(const NV_item* target) const;
    /// True when everybody was notified of the change; false as well, and nothing is changed, for an item that it
    /// cannot point at.
    bool set(NV_item* target) { return _set(target, notify_all); }
    bool _set(NV_item* target, notify_t how); ///< with notify_none nothing counts as changed, and nobody is notified

    NV_pointer* as_pointer() override { return this; }
    item_type_t get_type() const override { return item_pointer; }
    void _print(Debug::Dumper& dumper) const override;
    Serial_ret serialise(CDS::Remote::Send_buffer& out, unsigned short& start_id) override;
    Serial_ret deserialise(CDS::Remote::Receive_buffer& in, unsigned short& start_id) override;
    bool serialise(NV_iterator* it) override;
    bool deserialise(NV_iterator* it) override;
    int _to_string(char* buffer, int size) const override;
    const char* _from_string(const char* text) override;
    bool set_default(bool all) override; ///< none

private:
    friend class NV_root;
    void point_at(NV_item* target);
    void leave_tree(NV_root& tree) override;

    NV_item* _target = nullptr;
    NV_root* _listed_at = nullptr; ///< whose pointer tree holds this
};

} // namespace NV_store
