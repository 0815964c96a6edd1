// SPDX-License-Identifier: MIT
#pragma once
#include "util/Debug_dumper.h"
#include "util/api.h"
#include "util/sl_list.h"

namespace CDS {
class Update_listener;
namespace Remote {
class Send_buffer;
class Receive_buffer;
} // namespace Remote
} // namespace CDS

/// Base of every addressable value of the two stores, the data block's and the settings': an identifier, a type code,
/// and the walk that writes and reads values. Built at start-up in one thread; no lock of its own.
class KAV_API Data_item : public sll_node {
public:
    /// Base type, 5 bits of the type byte. Any byte may stand in one: it is what the other side sent.
    enum item_type_t : unsigned char {
        item_root = 0,
        item_struct = 1, ///< a container of named children
        item_bool = 2,
        item_char = 3, ///< unsigned
        item_uint8 = 4,
        item_uint16 = 5,
        item_uint32 = 6, ///< unsigned int, unsigned long
        item_int8 = 7,
        item_int16 = 8,
        item_int32 = 9, ///< int, long
        item_float = 10,
        item_double = 11,
        item_reserved = 12,
        item_container = 13, ///< of the settings store; read back like a struct, never reported
        item_pointer = 14,   ///< of the settings store
        item_uint64 = 15,
        item_int64 = 16
    };
    /// Shape, 3 bits of the type byte.
    enum class_type_t : unsigned char {
        class_value = 0, ///< one value, or a container
        class_array = 1  ///< a fixed number of values of one type
    };

    /// shape * 32 + type, e.g. 0x25 for an array of unsigned short.
    static unsigned char get_type_byte(class_type_t shape, item_type_t type) {
        return static_cast<unsigned char>(shape * 32 + type);
    }
    /// The reverse; always true, whatever the byte.
    static constexpr bool decode_type_byte(class_type_t& shape, item_type_t& type, unsigned char byte) {
        shape = static_cast<class_type_t>(byte >> 5);
        type = static_cast<item_type_t>(byte & 0x1F);
        return true;
    }

    /// How a walk over items ended: where it failed and where a later call may resume. A value.
    class Serial_ret {
    public:
        Serial_ret() = default;
        Serial_ret(unsigned short failed_id) : _failed(failed_id) {} ///< not explicit: an identifier is a result

        bool ok() const { return _failed == 0; }
        bool fail() const { return _failed != 0; }
        unsigned short stop() const { return _failed; }    ///< id of the item that failed, 0: none
        unsigned short next() const { return _resume_at; } ///< id of the item to resume at, 0: not set
        bool next_set() const { return _resume_at != 0; }
        void set_next(unsigned short item_id) { _resume_at = item_id; }
        /// Set `next` to the item's id unless it is set already; null changes nothing.
        void sync_next(const Data_item* item) {
            if (_resume_at == 0 && item) _resume_at = item->id;
        }

    private:
        unsigned short _failed = 0;
        unsigned short _resume_at = 0;
    };

    /// Takes the next identifier: 1, 2, ... 65533, then 65534 once with a message, then 65535 for all further ones.
    Data_item();
    /// Takes the given identifier as it is: not 0, which means "no item"; uniqueness is the caller's.
    explicit Data_item(unsigned short fixed_id);
    Data_item(const Data_item&) = delete;
    Data_item& operator=(const Data_item&) = delete;

    // Slot order is part of the interface.

    virtual const char* get_name() const = 0;
    virtual Data_item* find_data_item(const char* name) = 0;  ///< null when there is none
    virtual Data_item* find_data_item(unsigned short id) = 0; ///< null when there is none
    virtual void _print(Debug::Dumper&) const;
    /// Append the values, from the item `start_id` on (0: from here). It becomes 0 when that item was met.
    virtual Serial_ret serialise(CDS::Remote::Send_buffer&, unsigned short& start_id) = 0;
    virtual Serial_ret deserialise(CDS::Remote::Receive_buffer&, unsigned short& start_id) = 0;
    /// Append the description, `depth` levels deep (0: this item alone; 255 and negative: all). Every item overrides
    /// it: here it aborts.
    virtual void serialise_structure(CDS::Remote::Send_buffer&, int depth);

    /// Whether this item takes part in a walk that begins at `start_id`; clears it on meeting it.
    bool serial_action_started(unsigned short& start_id) const {
        if (start_id != 0 && start_id != id) return false;
        start_id = 0;
        return true;
    }
    Serial_ret serial_ok() const { return Serial_ret(); }
    Serial_ret serial_fail() const { return Serial_ret(id); }
    Serial_ret serial_check(bool good) const { return good ? serial_ok() : serial_fail(); }

    /// The next identifier to hand out. Public so that an application can see how many are left.
    static unsigned short lookup_max_id;

    CDS::Update_listener* update_listener = nullptr; ///< notified when the item's bytes changed; not owned
    const unsigned short id;

protected:
    ~Data_item() = default;
};

namespace CDS {

/// Notified when the bytes of an item changed.
class KAV_API Update_listener {
public:
    /// `why` is 1 for a change. Called with the lock held under which the change was signalled.
    virtual void updated(int why) = 0;

protected:
    ~Update_listener() = default;
};

} // namespace CDS
