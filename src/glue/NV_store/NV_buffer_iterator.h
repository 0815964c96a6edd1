// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_iterator.h"
#include "util/api.h"

namespace NV_store {

/// An iterator over the caller's memory. Writing goes on behind the readable data: reset_writing() before a fresh save.
class KAV_API NV_buffer_iterator : public NV_iterator {
public:
    /// `n` [bytes] at `bytes`, of which the first `length` can be read.
    NV_buffer_iterator(unsigned char* bytes, int n, int length) { set_buffer(bytes, n, length); }
    void set_buffer(unsigned char* bytes, int n, int length);
    void reset_reading() { read_position = 0; }
    void reset_writing() { write_position = 0; }
    int set_mode(modes_t m); ///< 0

    bool push_bytes(unsigned char* data, int n) override; ///< all or nothing
    bool pop_bytes(unsigned char* data, int n) override;
    bool peek_bytes(unsigned char* data, int n) override;
    bool get_free_space(unsigned int& used, unsigned int& total) const override;

    unsigned char* buffer;
    int read_position;
    int write_position; ///< also the end of the readable data
    int capacity;
};

} // namespace NV_store
