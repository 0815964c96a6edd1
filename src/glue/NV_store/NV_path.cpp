// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_path.h"
#include "glue/NV_store/NV_iterator.h"

namespace NV_store {

bool NV_path::push(unsigned short id) {
    if (_count == max_path_ids) return false;
    _ids[_count++] = id;
    return true;
}

bool NV_path::serialise(NV_iterator* it) const {
    bool done = it->push_uint8(_count);
    for (int i = 0; i < _count && done; ++i) done = it->push_uint16(_ids[i]);
    return done;
}

bool NV_path::deserialise(NV_iterator* it) {
    clear();
    unsigned char count;
    if (!it->pop_uint8(count) || count > max_path_ids) return false;
    for (int i = 0; i < count; ++i) {
        if (!it->pop_uint16(_ids[i])) return false;
    }
    _count = count;
    return true;
}

} // namespace NV_store
