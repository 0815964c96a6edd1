// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_iterator.h"
#include "glue/NV_store/NV_waiters.h"
#include "glue/cds/Data_item.h"
#include "util/api.h"
#include <QObject>

namespace NV_store {

class NV_container;
class NV_pointer;
class NV_root;

/// Who is notified of a change.
enum notify_t {
    notify_none = 0,
    notify_parents = 1, ///< the containers above, up to the root
    notify_waiters = 2, ///< the item's own waiters
    notify_all = 3
};

/// A node of the settings tree: a container or a value.
///
/// Each item has two identifiers that must not be mixed up. The settings identifier (get_id()), unique among its
/// siblings, stands in stored images for ever. The one of its Data_item part (get_data_id()) holds for this process and
/// the remote format.
///
/// One lock guards a tree, the root's. The caller holds it around set, get, save and load when several threads use the
/// tree. Registrations take it unless the caller holds it already. So does a notification, at the item and at each
/// container above it where somebody is registered; where nobody is, a change takes no lock. The Qt signal and the
/// update listener are called without it being taken here.
///
/// An item may outlive its parent and its tree: it is without them then, and its value stays.
class KAV_API NV_item : public QObject, public Data_item {
    Q_OBJECT

public:
    using NV_waiter_reg = NV_store::NV_waiter_reg;
    using NV_waiter_list = NV_store::NV_waiter_list;

    enum Flags : unsigned char {
        changed_for_journal_1 = 1, ///< changed since the last save
        changed_for_journal_2 = 2, ///< the same for the second journal
        not_loaded = 4             ///< neither loaded nor set: left out of a complete image
    };

    /// `name` is not copied; it holds neither '/' nor ','. A parent takes the new item as its last child and does not
    /// own it.
    NV_item(NV_container* parent, unsigned short id, const char* name);
    ~NV_item() override; ///< leaves its parent

    // Data_item's operations, in its slot order.
    const char* get_name() const override { return name; }
    Data_item* find_data_item(const char* path) override;       ///< by names joined by '/'
    Data_item* find_data_item(unsigned short data_id) override; ///< by Data_item identifier
    void _print(Debug::Dumper&) const override = 0;
    Serial_ret serialise(CDS::Remote::Send_buffer&, unsigned short& start_id) override = 0;
    Serial_ret deserialise(CDS::Remote::Receive_buffer&, unsigned short& start_id) override = 0;
    void serialise_structure(CDS::Remote::Send_buffer&, int depth) override;

    virtual item_type_t get_type() const = 0;
    unsigned char get_type_byte() const { return Data_item::get_type_byte(class_value, get_type()); }
    /// Write the record if the iterator's mode wants it: true when written or left out.
    virtual bool serialise(NV_iterator* it) = 0;
    /// Read the record that comes next; false when it is not this item's.
    virtual bool deserialise(NV_iterator* it) = 0;
    /// Value as text: at most `size` bytes with the zero; the characters written.
    virtual int _to_string(char* buffer, int size) const = 0;
    /// Set from text: the position behind what was read, or null.
    virtual const char* _from_string(const char* text) = 0;
    virtual bool set_default(bool all) = 0;
    /// Notify all waiters here and below, as if everything had changed; nothing becomes changed.
    virtual bool signal_all(NV_root* root);
    /// The item at a path below this one, null when there is none. The empty path leads nowhere.
    virtual NV_item* _search(const char* path);
    virtual NV_root* get_root() const;
    virtual NV_container* as_container() { return nullptr; }
    virtual NV_pointer* as_pointer() { return nullptr; }
    /// The base type of the NV_number that this is, item_root for all other classes: what a cast may rely on. An
    /// application's own class may give any type in get_type().
    virtual item_type_t get_number_type() const { return item_root; }
    virtual short get_module_id(Reg_type r) const; ///< the parent's, 0 without one

    unsigned short get_id() const { return id; }                 ///< settings identifier
    unsigned short get_data_id() const { return Data_item::id; } ///< process-wide identifier
    unsigned char get_flags() const { return flags; }
    /// Set and clear flags without notifying anybody: what a save that failed afterwards had cleared, or what a list
    /// needs to be saved whole.
    void change_flags(int set, int clear) { flags = static_cast<unsigned char>((flags | set) & ~clear); }
    NV_container* get_parent() const { return parent; }
    /// The name as the parent shows it: the position in an indexed container, else the name. Cut to `size` [bytes].
    void get_path_name(char* buffer, int size) const;

    void
    lock() const; ///< the tree's lock; nothing without a root. The compiler checks only a lock() of the root itself.
    void unlock() const;

    /// Have `waiter` notified when this item changes; see Reg_type for what the events carry. The waiter outlives the
    /// registration.
    void register_waiter(waiter_descriptor* waiter, unsigned int value, bool skip_unforced);
    void autoreg_waiter(waiter_descriptor* waiter, bool skip_unforced);
    void register_access_waiter(waiter_descriptor* waiter, Access_base* access, bool skip_unforced);
    void register_virt_access_waiter(waiter_descriptor* waiter, Virt_access* virt, bool skip_unforced);
    /// Take one such registration back; false when there is none.
    bool unregister_waiter(waiter_descriptor* waiter, unsigned int value, bool skip_unforced);
    bool autounreg_waiter(waiter_descriptor* waiter, bool skip_unforced);
    bool unregister_access_waiter(waiter_descriptor* waiter, Access_base* access, bool skip_unforced);
    bool unregister_virt_access_waiter(waiter_descriptor* waiter, Virt_access* virt, bool skip_unforced);
    /// Whether an event comes from autoreg_waiter() on this item.
    bool is_event(const waiter_event& e) const;

    /// Note a change and notify whom it concerns: true when every post succeeded. A failed post keeps the containers
    /// above from learning of the change, so that a journal leaves it out: write a complete image after one.
    bool notify_updated(bool changed, bool mark, bool force, notify_t how, const NV_root* root);
    bool notify_updated(bool changed, notify_t how);

    /// Read past a record that no item of the tree wants.
    static bool deserialise_unknown_handoff(NV_iterator* it);

Q_SIGNALS:
    void value_changed(NV_item* item);

protected:
    friend class NV_container;

    Record_header header(Marker marker) const { return {get_type_byte(), marker, id}; }
    /// Whether the iterator's mode wants this item; `valid` is false for a mode that writes nothing.
    bool wanted(const NV_iterator& it, bool& valid) const;
    void saved() { flags = static_cast<unsigned char>(flags & ~(changed_for_journal_1 | changed_for_journal_2)); }
    void loaded() { flags = static_cast<unsigned char>(flags & ~not_loaded); }
    /// Go out of a tree, with everything below: no pointer leads across the cut afterwards.
    virtual void leave_tree(NV_root& tree);

    unsigned char flags = not_loaded;
    const char* name;
    NV_waiter_list _waiters;
    NV_container* parent;
    const unsigned short id;
};

/// A handle on one item.
class KAV_API Access_base {
public:
    Access_base() = default;
    explicit Access_base(NV_item* i) : item(i) {}
    void init(NV_item* i) { item = i; }
    void lock() const; ///< the item's tree; a handle without an item is a bug report
    void unlock() const;
    void register_waiter(waiter_descriptor* waiter, bool skip_unforced);
    bool unregister_waiter(waiter_descriptor* waiter, bool skip_unforced);

    NV_item* item = nullptr;
};

/// A handle that an application derives from; events carry the address of the whole object.
class KAV_API Virt_access {
public:
    virtual ~Virt_access();
    void autoreg(waiter_descriptor* waiter, bool skip_unforced);
    bool autounreg(waiter_descriptor* waiter, bool skip_unforced);

    Access_base access;
};

} // namespace NV_store
