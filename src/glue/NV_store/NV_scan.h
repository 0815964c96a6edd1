// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_record.h"
#include "util/api.h"
#include <string>
#include <vector>

namespace NV_store {

class NV_container;

/// Goes through the records of an image or a journal from front to back, header by header, into containers and out of
/// them, whatever the bytes are and however deeply they nest. No tree is needed. O(bytes), checksums included
class KAV_API Record_walk {
public:
    enum Step : unsigned char {
        container_started,
        value_met,
        container_ended, ///< its checksum may be right or wrong
        all_done,        ///< the last record ended with the bytes
        stuck            ///< the bytes from `at` on make no sense
    };

    /// `n` [bytes] that outlive the walk; without `sums` the checksums are passed over.
    Record_walk(const unsigned char* bytes, int n, bool sums = true) : _bytes(bytes), _n(n), _sums(sums) {}
    /// Not to be called again once it is done or stuck.
    Step next();

    // What the last step met.
    Record_header head = {};
    int at = 0;            ///< [bytes] of its header from the start
    int depth = 0;         ///< containers that are open after the step
    int end = 0;           ///< [bytes] up to which the walk has come
    uint32_t stored = 0;   ///< checksum of a container that ended
    uint32_t computed = 0; ///< the same, worked out from its bytes
    const char* why = "";  ///< it is stuck

private:
    Step stop(const char* reason);
    Step start_container();
    Step end_container();
    Step pass_value();

    struct Container {
        int start;       ///< [bytes]
        uint32_t before; ///< CRC of all bytes up to there
    };
    uint32_t sum_up_to(int place);
    uint32_t sum_of(const Container& c, int place);

    const unsigned char* const _bytes;
    const int _n;
    const bool _sums;
    std::vector<Container> _open;
    int _summed = 0;   ///< [bytes]
    uint32_t _sum = 0; ///< CRC of so many bytes
};

/// [bytes] of the container records of `root` that stand one after the other at the start of an image or a journal;
/// 0 when it begins with something else.
KAV_API size_t whole_records(const std::string& bytes, const NV_container& root);

/// The same records (`bytes` holds nothing else) without what a tree does not know: settings and containers that it no
/// longer has or has with another type, and lists with too few elements for it. What is left loads completely.
/// `dropped` counts the records.
KAV_API std::string prune(std::string bytes, NV_container& root, int& dropped);

} // namespace NV_store
