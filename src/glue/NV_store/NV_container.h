// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_item.h"
#include "util/api.h"
#include "util/sl_list.h"

namespace NV_store {

class Checksum_scope;
class NV_path;

/// A container of settings. Applications derive from it and hold their settings as members, which join it in
/// declaration order:
///
///     struct Wheel : NV_store::NV_container {
///         Wheel(NV_container* parent) : NV_container(parent, parent->get_root(), 3, "wheel") {}
///         NV_store::NV_uint16 pulses{this, 1, "pulses", 98};
///         NV_store::NV_float radius{this, 2, "radius", 0.85f};
///     };
///
/// Its children are addressed by name, or by position where children_named() answers false. Never take a
/// container or a pointer out of a tree that was released and is loaded without a safe store: older images hold its
/// record, which a plain load cannot skip.
class KAV_API NV_container : public NV_item {
public:
    /// Null for `root`: the parent's. A root that is given without a parent must not die before another one (or none)
    /// is set: it does not know of this container.
    NV_container(NV_container* parent, NV_root* root, unsigned short id, const char* name);
    NV_container(unsigned short id, const char* name); ///< without a parent
    ~NV_container() override;                          ///< children that are left are removed

    /// Append a child, which is in no container; it joins this tree with everything below it, and what is loaded or
    /// changed there counts as such in the containers above. A second child with the same settings identifier ends the
    /// process with exit(-119), except in a container of type item_container, which holds like elements.
    ///
    /// Like remove_child(): under the tree's lock when several threads use the tree. O(items below)
    void add_child(NV_item* child);
    /// Take a child out: it has no parent then, and neither it nor anything below has a root. Pointers between them
    /// and the tree lead nowhere afterwards, without a notification. Nothing for an item that is no child of this.
    void remove_child(NV_item* child);
    NV_item* get_next_child(const NV_item* child) const; ///< null: the first one; null at the end
    /// The item behind `item` in pre-order, a container before its children; null at the end of this container.
    NV_item* get_next_in_tree(const NV_item* item) const;
    /// A child by its settings identifier, looked for behind `last` (null: from the first) and then from the first on,
    /// so that going through children in order is quick. Null when there is none.
    NV_item* find_child(unsigned short id, const NV_item* last) const;
    int get_my_index(const NV_item* child) const; ///< position, -1 when it is not here
    NV_item* operator[](int index) const;         ///< aborts when out of range
    int num_children() const { return _children.size(); }
    virtual bool children_named() const { return true; }
    /// The item at a path of settings identifiers, null when there is none.
    NV_item* follow_path(const NV_path& path);
    /// The path from here to `item`; false when it is not below here or too deep. In a list with repeated identifiers
    /// it leads to the first item that has the identifier.
    bool build_path(NV_path* path, const NV_item* item) const;
    /// Join another tree, or none, with everything below. For a container without a parent; add_child() does it for
    /// the others.
    void _set_root(NV_root* root);

    item_type_t get_type() const override { return item_struct; }
    Data_item* find_data_item(unsigned short data_id) override;
    using NV_item::find_data_item;
    NV_item* _search(const char* path) override;
    NV_root* get_root() const override { return root; }
    NV_container* as_container() override { return this; }
    void _print(Debug::Dumper& dumper) const override;
    Serial_ret serialise(CDS::Remote::Send_buffer& out, unsigned short& start_id) override;
    Serial_ret deserialise(CDS::Remote::Receive_buffer& in, unsigned short& start_id) override;
    void serialise_structure(CDS::Remote::Send_buffer& out, int depth) override;
    bool serialise(NV_iterator* it) override;
    /// Read this container's frame straight into the settings, without a notification. False, with one line on the
    /// debug output, when it is not this container's, cut, or its CRC is wrong: then everything below returns to its
    /// default.
    bool deserialise(NV_iterator* it) override;
    /// NV_iterator::skip_container().
    static bool deserialise_unknown(NV_iterator* it);
    /// "{a,b,c}". The characters written.
    int _to_string(char* buffer, int size) const override;
    const char* _from_string(const char* text) override;
    bool set_default(bool all) override; ///< true: everything below; false: nothing
    bool signal_all(NV_root* r) override;

protected:
    [[gnu::format(printf, 2, 3)]] bool failed(const char* format, ...) const;
    bool load_children(NV_iterator& it);
    bool load_record(NV_iterator& it, unsigned short record_id, NV_item*& last);
    bool load_child(NV_iterator& it, NV_item& child);
    bool finish_load(NV_iterator& it, Checksum_scope& checksum);
    void leave_tree(NV_root& tree) override;
    void release_children();

    NV_root* root;
    c_sl_list<NV_item> _children;
};

} // namespace NV_store
