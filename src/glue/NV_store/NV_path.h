// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_record.h"
#include "util/api.h"

namespace NV_store {

class NV_iterator;

/// Settings identifiers from a container down to an item. A value. Stored as a count byte and 16 bits each.
class KAV_API NV_path {
public:
    void clear() { _count = 0; }
    bool push(unsigned short id); ///< false when the path is full
    int size() const { return _count; }
    unsigned short operator[](int i) const { return _ids[i]; } ///< 0 <= i < size()
    bool serialise(NV_iterator* it) const;
    bool deserialise(NV_iterator* it); ///< false, and the path empty, when it is cut or too long

private:
    unsigned char _count = 0;
    unsigned short _ids[max_path_ids] = {};
};

} // namespace NV_store
