// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/Data_item.h"
#include "util/api.h"

/// The base types of items, a row each: X(T, name, NAME). All that depends on them follows from here.
///
/// Data_item::item_<name> is the type's code, NV_store::NV_<name> the setting, push_<name>() and pop_<name>() are its
/// operations on an image, append_<NAME>() and pop_<NAME>() those of the remote format. A value has sizeof(T) bytes in
/// both, little-endian; a bool is 0 or 1, and any other byte is read as true.
#define KAV_BASE_TYPES(X)                                                                                              \
    X(bool, bool, BOOL)                                                                                                \
    X(char, char, CHAR)                                                                                                \
    X(unsigned char, uint8, UINT8)                                                                                     \
    X(unsigned short, uint16, UINT16)                                                                                  \
    X(unsigned int, uint32, UINT32)                                                                                    \
    X(signed char, int8, INT8)                                                                                         \
    X(short, int16, INT16)                                                                                             \
    X(int, int32, INT32)                                                                                               \
    X(float, float, FLOAT)                                                                                             \
    X(double, double, DOUBLE)                                                                                          \
    X(unsigned long long, uint64, UINT64)                                                                              \
    X(long long, int64, INT64)

/// The types that a data block may hold besides, and as which they count: X(T, As). `long` is cut to 32 bits.
#define KAV_ALIAS_TYPES(X)                                                                                             \
    X(unsigned long, unsigned int)                                                                                     \
    X(long, int)

/// All types of a data block; X takes what it wants of a row: X(T, ...).
#define KAV_DATA_ITEM_TYPES(X) KAV_BASE_TYPES(X) KAV_ALIAS_TYPES(X)

/// `code` of a type, and the type `As` which it counts.
template <class T>
struct Base_type_of;

#define KAV_BASE_TYPE(T, name, NAME)                                                                                   \
    template <>                                                                                                        \
    struct Base_type_of<T> {                                                                                           \
        using As = T;                                                                                                  \
        static constexpr Data_item::item_type_t code = Data_item::item_##name;                                         \
    };
KAV_BASE_TYPES(KAV_BASE_TYPE)
#undef KAV_BASE_TYPE

#define KAV_ALIAS_TYPE(T, As)                                                                                          \
    template <>                                                                                                        \
    struct Base_type_of<T> : Base_type_of<As> {};
KAV_ALIAS_TYPES(KAV_ALIAS_TYPE)
#undef KAV_ALIAS_TYPE
