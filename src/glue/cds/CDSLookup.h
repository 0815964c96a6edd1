// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_remote.h"
#include "glue/cds/Data_item.h"
#include "glue/cds/Data_item_text.h"
#include "util/api.h"
#include "util/sl_list.h"
#include <cstddef>
#include <vector>

/// The lookup tree: describes the data block as items with names, identifiers, addresses and sizes. Built at start-up
/// in one thread and then only read; the values are guarded by the head's lock.
namespace CDS {

class Head;
class Lookup_root;
class Lookup_struct;

/// The cursor of a change scan over two copies of the block, the live one and the one before.
class KAV_INTERNAL Compare {
public:
    Compare(const void* new_copy, const void* old_copy, unsigned int size);
    /// Look for the first difference from `first_diff` on.
    void scan();
    /// Move to another address of the live copy; whether no difference is left from there on. Items must be visited in
    /// block order: moving back looks only at the bytes behind the old position again.
    bool seek(const void* address);

    const unsigned char* position;
    const unsigned char* old_position;
    ptrdiff_t length;     ///< [bytes] left from `position`
    ptrdiff_t first_diff; ///< [bytes] from `position` to the first difference
    bool done;            ///< no difference at or behind `position`
};

/// Decimal text of `n` that may be kept for ever; numbered children are named by it. One thread at a time.
KAV_API const char* get_number_as_name(unsigned int n);

/// A node of the tree. The strings are the caller's and outlive it. Concrete classes append themselves to their parent.
class KAV_API Lookup_item : public Data_item {
public:
    explicit Lookup_item(Lookup_struct& parent);

    // Slot order is part of the interface.

    const char* get_name() const override { return name; }
    Data_item* find_data_item(const char* path) override;
    Data_item* find_data_item(unsigned short wanted) override;
    void serialise_structure(Remote::Send_buffer&, int depth) override;
    virtual void print_declaration(int indent) const; ///< on the debug output; here nothing
    virtual int struct_query() const;                 ///< 0; for applications
    virtual const void* data_address() const = 0;
    virtual unsigned int data_size() const = 0; ///< [bytes]
    virtual item_type_t get_type() const = 0;
    virtual unsigned char get_type_byte() const;
    virtual Lookup_struct* as_struct();
    /// Notify the listeners whose bytes differ; true when this item's do.
    virtual bool _signal_update(Compare& compare);
    /// Widen the range to this item's identifiers. Run once on the root when the tree is complete.
    virtual void set_minmax(unsigned short& min, unsigned short& max);
    /// By path of names; the empty path is the item itself. Null when there is none.
    virtual Lookup_item* find_item(const char* path, char separator);
    /// By identifier, after set_minmax(). Null when there is none.
    virtual Lookup_item* find_item(unsigned short wanted);
    virtual Lookup_root* root();
    virtual void reserved_hook();

    void set_type_name(const char* s) { type_name = s; }
    void set_name(const char* s) { name = s; }
    void set_comment(const char* s) { comment = s; }
    const char* get_type_name() const { return type_name; }
    const char* get_comment() const { return comment; }
    Lookup_struct* get_parent() const { return parent; }
    bool has_fixed_extent() const { return _fixed_extent; } ///< where its bytes lie never changes
    /// [bytes] that serialise() appends each time; -1 where that is not known.
    int stream_size();

    /// Signal a change of these bytes through the root's head, without old contents. The caller holds the head's lock.
    void notify_cds(const void* address, unsigned int size);
    /// Notify the listeners of everything that differs between the live bytes and a copy of them from before; true when
    /// something did. `new_copy` is in the live block; when none of its bytes are this item's, nothing is scanned and
    /// the result is false.
    bool signal_update(const void* new_copy, const void* old_copy, unsigned int size);

protected:
    ~Lookup_item() = default;

    const char* type_name = "";
    const char* name = "";
    const char* comment = "";
    Lookup_struct* parent;

    /// data_address() and data_size() have said the same since the item joined its parent, and always will: a change
    /// scan then passes it over without asking. For concrete classes, whose constructors set it.
    bool _fixed_extent = false;
    /// serialise() appends `_stream_size` bytes each time, in a struct what its children do: a page of the values then
    /// begins without going through those before it. For concrete classes, as above.
    bool _fixed_stream = false;
    unsigned short _stream_size = 0; ///< [bytes] of a value or an array
};

/// One value of type T inside the block.
template <class T>
class KAV_API Lookup_basic : public Lookup_item {
public:
    /// A class that does not give the place here sets `value` before the item is used.
    explicit Lookup_basic(Lookup_struct& parent_struct, T* place = nullptr)
        : Lookup_item(parent_struct), value(place) {}

    void _print(Debug::Dumper& dumper) const override { Data_item_stringify<T>(value).print(get_name(), dumper); }
    Serial_ret serialise(Remote::Send_buffer& out, unsigned short& start_id) override {
        if (serial_action_started(start_id)) out.append(static_cast<typename Base_type_of<T>::As>(*value));
        return serial_ok();
    }
    Serial_ret deserialise(Remote::Receive_buffer& in, unsigned short& start_id) override {
        if (!serial_action_started(start_id)) return serial_ok();
        typename Base_type_of<T>::As received;
        if (!in.pop(received)) return serial_fail();
        if (T{received} != *value) {
            *value = received;
            notify_cds(value, sizeof(T));
        }
        return serial_ok();
    }
    item_type_t get_type() const override { return get_base_type(); }
    static item_type_t get_base_type() { return Base_type_of<T>::code; }

protected:
    ~Lookup_basic() = default;
    T* value;
};

class KAV_API Lookup_basic_array_base : public Lookup_item {
public:
    Lookup_basic_array_base(Lookup_struct& parent_struct, unsigned char elements_max)
        : Lookup_item(parent_struct), capacity(elements_max) {}
    unsigned char get_type_byte() const override;

protected:
    ~Lookup_basic_array_base() = default;
    void print_elements(Value_type type, const void* elements, Debug::Dumper&) const;
    unsigned char capacity; ///< [elements] 1..255
};

/// A fixed number of values of type T inside the block.
template <class T>
class KAV_API Lookup_basic_array : public Lookup_basic_array_base {
public:
    /// A class that does not give the place here sets `elements` before the item is used.
    Lookup_basic_array(Lookup_struct& parent_struct, unsigned char elements_max, T* place = nullptr)
        : Lookup_basic_array_base(parent_struct, elements_max), elements(place) {}

    void _print(Debug::Dumper& dumper) const override { print_elements(Value_type::of<T>(), elements, dumper); }
    Serial_ret serialise(Remote::Send_buffer& out, unsigned short& start_id) override {
        if (!serial_action_started(start_id)) return serial_ok();
        out.append_UINT8(capacity);
        for (unsigned i = 0; i < capacity; ++i) out.append(static_cast<typename Base_type_of<T>::As>(elements[i]));
        return serial_ok();
    }
    /// Surplus elements that the other side sent stay in the buffer, so what follows is misaligned: the format has no
    /// means to tell a longer array from a wrong one.
    Serial_ret deserialise(Remote::Receive_buffer& in, unsigned short& start_id) override {
        if (!serial_action_started(start_id)) return serial_ok();
        unsigned char count;
        if (!in.pop_UINT8(count)) return serial_fail();
        bool changed = false;
        for (unsigned i = 0; i < count && i < capacity; ++i) {
            typename Base_type_of<T>::As received;
            if (!in.pop(received)) return serial_fail();
            changed |= T{received} != elements[i];
            elements[i] = received;
        }
        if (changed) notify_cds(elements, static_cast<unsigned>(capacity * sizeof(T)));
        return serial_ok();
    }
    item_type_t get_type() const override { return Lookup_basic<T>::get_base_type(); }

protected:
    ~Lookup_basic_array() = default;
    T* elements;
};

/// A container of items, in declaration order, which is block order.
class KAV_API Lookup_struct : public Lookup_item {
public:
    explicit Lookup_struct(Lookup_struct& parent_struct) : Lookup_item(parent_struct) {}

    void _print(Debug::Dumper&) const override;
    Serial_ret serialise(Remote::Send_buffer&, unsigned short& start_id) override;
    Serial_ret deserialise(Remote::Receive_buffer&, unsigned short& start_id) override;
    void serialise_structure(Remote::Send_buffer&, int depth) override;
    void print_declaration(int indent) const override;
    item_type_t get_type() const override { return item_struct; }
    Lookup_struct* as_struct() override { return this; }
    bool _signal_update(Compare& compare) override;
    void set_minmax(unsigned short& min, unsigned short& max) override;
    Lookup_item* find_item(const char* path, char separator) override;
    Lookup_item* find_item(unsigned short wanted) override;

    /// Append a child. Called by the constructors of concrete items.
    void add_item(Lookup_item& child) {
        _children.push(&child);
        _by_end.clear();
        for (Lookup_struct* above = this; above->_children_size >= 0; above = above->parent) above->_children_size = -1;
    }
    void get_minmax(unsigned short& min, unsigned short& max) const {
        min = min_id;
        max = max_id;
    }

protected:
    ~Lookup_struct() = default;
    c_sl_list<Lookup_item> _children;
    unsigned short min_id = 0; ///< smallest identifier of the subtree, valid after set_minmax()
    unsigned short max_id = 0;

private:
    friend class Lookup_item;
    /// A child, and where its bytes end in the block and in the stream of values.
    struct Extent {
        const unsigned char* end;
        Lookup_item* child;
        int stream_end;
    };
    void index_children();
    void serialise_page(Remote::Send_buffer&);

    /// For the change scan, which so finds the children that changed without asking the others, and for pages. Made by
    /// set_minmax(); empty while there are children whose extent is not fixed, that do not stand in block order, or
    /// that were added later.
    std::vector<Extent> _by_end;
    int _children_size = -1; ///< [bytes] in the stream; -1 while it is not known, or there is no index
};

/// The root: its own parent; knows the head and the block.
class KAV_API Lookup_root : public Lookup_struct {
public:
    /// `block` is the start of the data block.
    Lookup_root(Head& h, void* block) : Lookup_struct(*this), head(&h), base(block) {}
    Lookup_root* root() override { return this; }
    Head* get_head() const { return head; }
    /// Signal a change of `size` bytes at `address` of the block, without old contents.
    void notify_head(const void* address, unsigned int size);

protected:
    ~Lookup_root() = default;
    Head* head;
    void* base;
};

} // namespace CDS
