// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_iterator.h"
#include "util/api.h"
#include <string>

namespace NV_store {

class NV_container;

/// A whole record in memory: its sizes fit and, for a container, all checksums in it are right. Looks at bytes alone;
/// no tree is needed and no setting touched.
struct KAV_API Stored_record {
    NV_iterator::NV_iterator_header head = {};
    const unsigned char* at = nullptr;
    int size = 0; ///< [bytes] with header and checksum

    bool is_container() const { return head.marker == NV_iterator::marker_start; }
    const unsigned char* content() const { return at + 4; }
    int content_size() const { return is_container() ? size - 12 : size - 4; } ///< without header, end and checksum

    /// Read the record at `bytes`: false when what is there is none, or not whole within `n` [bytes].
    bool read(const unsigned char* bytes, int n) { return read(bytes, n, 0); }

private:
    bool read(const unsigned char* bytes, int n, int depth);
};

/// [bytes] of the container records of `root` that stand one after the other at the start of an image or a journal;
/// 0 when it begins with something else.
KAV_API size_t whole_records(const std::string& bytes, const NV_container& root);

/// The same records without what a tree does not know: settings and containers that it no longer has or has with
/// another type, and lists with too few elements for it. What is left loads completely. `dropped` counts the records.
KAV_API std::string prune(const std::string& bytes, NV_container& root, int& dropped);

} // namespace NV_store
