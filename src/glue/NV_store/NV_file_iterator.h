// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_iterator.h"
#include "util/api.h"
#include <string>

namespace NV_store {

/// An iterator over a file, written and read in place: a cut during a save leaves a torn file. Use the safe store for
/// anything that matters.
class KAV_API NV_file_iterator : public NV_iterator {
public:
    static constexpr unsigned int budget = 16384; ///< [bytes] what a settings file should stay below

    explicit NV_file_iterator(const char* file);
    ~NV_file_iterator() override; ///< closes

    /// Close, and open for `m`: mode_write truncates the file, the journal modes append. 0 done; -1 when the file
    /// cannot be opened; close's result when closing failed. The mode is mode_closed after a failure.
    int set_mode(modes_t m);

    bool push_bytes(unsigned char* data, int n) override;
    bool pop_bytes(unsigned char* data, int n) override;
    bool peek_bytes(unsigned char* data, int n) override; ///< needs a file that can seek
    /// [bytes] moved since the file was opened for writing whole, peeked ones included, and the budget.
    bool get_free_space(unsigned int& used, unsigned int& total) const override;

    /// Move all of `n` bytes, going on after interruptions: the count (less at the end of the file), -1 on an error,
    /// which is printed on standard output, or for wrong arguments.
    static int blocking_read(int fd, void* data, int n);
    static int blocking_write(int fd, const void* data, int n);

private:
    int descriptor = -1;
    std::string path;
    unsigned int transferred = 0;
};

} // namespace NV_store
