// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/Base_types.h"
#include "glue/cds/CDSLookup.h"
#include "util/api.h"
#include <type_traits>

/// Items that an application builds its lookup tree from, one line per member of its data block, in declaration order:
///
///     struct Position { double lat, lon; };
///     struct Block { Position position; unsigned short satellites[2]; };
///
///     struct Block_items {
///         Block_items(CDS::Head& h, Block& b) : head(h), block(b) { root.finish(); }
///         CDS::Head& head;
///         Block& block;
///         CDS::Root root{head, "machine", block};
///         CDS::Struct position{root, "position", block.position};
///         CDS::Value<double> lat{position, "lat", block.position.lat, "latitude [deg]"};
///         CDS::Value<double> lon{position, "lon", block.position.lon, "longitude [deg]"};
///         CDS::Array<unsigned short> satellites{root, "satellites", block.satellites};
///     };
///
/// Members of a struct stand in the order of their addresses. Use int, not long, in a block that others read. Names and
/// comments are not copied. The items live as long as the tree is used; the block outlives them.
namespace CDS {

/// The whole block. finish() is called when every item has been built.
class KAV_API Root final : public Lookup_root {
public:
    template <class Block>
    Root(Head& h, const char* item_name, Block& block, const char* item_comment = "")
        : Root(h, item_name, &block, sizeof(Block), item_comment) {}
    Root(Head& h, const char* item_name, void* block, unsigned int size, const char* item_comment);

    /// Compute the identifier ranges and give the head this tree.
    void finish();
    const void* data_address() const override { return base; }
    unsigned int data_size() const override { return _size; }

private:
    unsigned int _size; ///< [bytes]
};

/// A struct inside the block.
class KAV_API Struct final : public Lookup_struct {
public:
    template <class Member>
    Struct(Lookup_struct& parent_struct, const char* item_name, Member& place, const char* item_comment = "",
           Update_listener* listener = nullptr)
        : Struct(parent_struct, item_name, &place, sizeof(Member), item_comment, listener) {}
    Struct(Lookup_struct& parent_struct, const char* item_name, const void* place, unsigned int size,
           const char* item_comment, Update_listener* listener);

    const void* data_address() const override { return _place; }
    unsigned int data_size() const override { return _size; }

private:
    const void* _place;
    unsigned int _size; ///< [bytes]
};

/// "unsigned short" and so on; what declaration lines show.
template <class T>
const char* type_name_of();
#define KAV_TYPE_NAME(T, ...)                                                                                          \
    template <>                                                                                                        \
    inline const char* type_name_of<T>() {                                                                             \
        return #T;                                                                                                     \
    }
KAV_DATA_ITEM_TYPES(KAV_TYPE_NAME)
#undef KAV_TYPE_NAME

/// One declaration line: "TYPE NAME;" or "TYPE NAME[n];", with the comment behind it if there is one.
KAV_API void print_declaration_line(int indent, const Lookup_item& item, int elements);

/// One value inside the block.
template <class T>
class Value final : public Lookup_basic<T> {
public:
    Value(Lookup_struct& parent_struct, const char* item_name, T& place, const char* item_comment = "",
          Update_listener* listener = nullptr)
        : Lookup_basic<T>(parent_struct, &place) {
        this->set_name(item_name);
        this->set_comment(item_comment);
        this->set_type_name(type_name_of<T>());
        this->update_listener = listener;
        this->_fixed_extent = this->_fixed_stream = true;
        this->_stream_size = sizeof(typename Base_type_of<T>::As);
        parent_struct.add_item(*this);
    }
    const void* data_address() const override { return this->value; }
    unsigned int data_size() const override { return sizeof(T); }
    void print_declaration(int indent) const override { print_declaration_line(indent, *this, 0); }
};

/// An array inside the block, of 1 to 255 elements.
template <class T>
class Array final : public Lookup_basic_array<T> {
public:
    template <unsigned n>
    Array(Lookup_struct& parent_struct, const char* item_name, T (&place)[n], const char* item_comment = "",
          Update_listener* listener = nullptr)
        : Lookup_basic_array<T>(parent_struct, static_cast<unsigned char>(n), place) {
        static_assert(n >= 1 && n <= 255, "the count travels as one byte");
        this->set_name(item_name);
        this->set_comment(item_comment);
        this->set_type_name(type_name_of<T>());
        this->update_listener = listener;
        this->_fixed_extent = this->_fixed_stream = true;
        this->_stream_size = 1 + n * sizeof(typename Base_type_of<T>::As);
        parent_struct.add_item(*this);
    }
    const void* data_address() const override { return this->elements; }
    unsigned int data_size() const override { return static_cast<unsigned>(this->capacity * sizeof(T)); }
    void print_declaration(int indent) const override { print_declaration_line(indent, *this, this->capacity); }
};

} // namespace CDS
