// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_remote.h"

namespace CDS::Remote {

/// The pair of operations that belongs to T, for templates over the item types. `long` travels as 32 bits.
template <class T>
int append_value(Send_buffer& out, T value);
template <class T>
bool pop_value(Receive_buffer& in, T& value);

#define KAV_REMOTE_VALUE(T, NAME)                                                                                      \
    template <>                                                                                                        \
    inline int append_value<T>(Send_buffer & out, T value) {                                                           \
        return out.append_##NAME(value);                                                                               \
    }                                                                                                                  \
    template <>                                                                                                        \
    inline bool pop_value<T>(Receive_buffer & in, T & value) {                                                         \
        return in.pop_##NAME(value);                                                                                   \
    }
KAV_REMOTE_VALUE(bool, BOOL)
KAV_REMOTE_VALUE(char, CHAR)
KAV_REMOTE_VALUE(signed char, INT8)
KAV_REMOTE_VALUE(unsigned char, UINT8)
KAV_REMOTE_VALUE(short, INT16)
KAV_REMOTE_VALUE(unsigned short, UINT16)
KAV_REMOTE_VALUE(int, INT32)
KAV_REMOTE_VALUE(unsigned int, UINT32)
KAV_REMOTE_VALUE(long long, INT64)
KAV_REMOTE_VALUE(unsigned long long, UINT64)
KAV_REMOTE_VALUE(float, FLOAT)
KAV_REMOTE_VALUE(double, DOUBLE)
#undef KAV_REMOTE_VALUE

template <>
inline int append_value<long>(Send_buffer& out, long value) {
    return out.append_INT32(static_cast<int>(value));
}
template <>
inline bool pop_value<long>(Receive_buffer& in, long& value) {
    int narrow;
    if (!in.pop_INT32(narrow)) return false;
    value = narrow;
    return true;
}
template <>
inline int append_value<unsigned long>(Send_buffer& out, unsigned long value) {
    return out.append_UINT32(static_cast<unsigned int>(value));
}
template <>
inline bool pop_value<unsigned long>(Receive_buffer& in, unsigned long& value) {
    unsigned int narrow;
    if (!in.pop_UINT32(narrow)) return false;
    value = narrow;
    return true;
}

} // namespace CDS::Remote
