// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "util/api.h"
#include <cstdio>

/// A stream over an ordinary file. Reading and writing are independent: each has a file of its own. No lock: one diner
/// uses it at a time. The C library's file buffers are the only memory it takes.
class KAV_API File_data_stream : public Data_stream {
public:
    File_data_stream();
    ~File_data_stream() override; ///< closes both files

    /// Open for reading. A failure is fatal, since the caller cannot go on without its file: one line on the debug
    /// output and exit(-133). Returns true. What was open for reading is closed first.
    bool open_read(const char* path);
    bool open_read(int fd); ///< the same over a descriptor, which the stream then owns
    /// Open for appending; an existing file is kept. A failure is fatal: one line and exit(-134). Returns true.
    bool open_write(const char* path);
    bool close_read();  ///< false when not open
    bool close_write(); ///< flushes first; false when not open

    using Data_stream::get_data;
    /// Read `n` bytes; false at the end of the file, what was read until then is buffered.
    bool get_data(int n) override;
    /// The count written, all ones when not open.
    unsigned int _write(const unsigned char* data, unsigned int n) override;

    /// Length [bytes] of the file open for reading; all ones when there is none, or when 32 bits do not hold it.
    virtual unsigned int get_length() const;

    /// Whether the file is there; true as well when that cannot be found out, for instance for lack of rights.
    static bool exists(const char* path);

protected:
    /// Take over `file` (null: nothing is open) in place of what is open.
    void set_read_file(FILE* file);
    void set_write_file(FILE* file);

    FILE* _read_file = nullptr;
    FILE* _write_file = nullptr;
};
