// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/Base_types.h"
#include "glue/cds/CDS_remote.h"

namespace CDS::Remote {

/// The pair of operations that belongs to T, for templates over the item types. `long` travels as 32 bits.
template <class T>
int append_value(Send_buffer& out, T value) {
    return append_value(out, static_cast<typename Base_type_of<T>::As>(value));
}
template <class T>
bool pop_value(Receive_buffer& in, T& value) {
    typename Base_type_of<T>::As received;
    if (!pop_value(in, received)) return false;
    value = received;
    return true;
}

#define KAV_REMOTE_VALUE(T, name, NAME)                                                                                \
    template <>                                                                                                        \
    inline int append_value<T>(Send_buffer & out, T value) {                                                           \
        return out.append_##NAME(value);                                                                               \
    }                                                                                                                  \
    template <>                                                                                                        \
    inline bool pop_value<T>(Receive_buffer & in, T & value) {                                                         \
        return in.pop_##NAME(value);                                                                                   \
    }
KAV_BASE_TYPES(KAV_REMOTE_VALUE)
#undef KAV_REMOTE_VALUE

} // namespace CDS::Remote
