// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/Data_stream.h"
#include "util/api.h"

/// A stream over descriptors of the operating system: a device, a pipe, a file. The calling thread itself reads and
/// writes. One thread owns the stream; there is no lock.
///
/// `bytes_read` and `bytes_written` count. A failure, an end of file and an interrupting signal all end a transfer;
/// what was read until then is in the buffer.
class KAV_API Posix_data_stream : public Data_stream {
public:
    static constexpr int no_timeout = -1; ///< wait without limit

    /// Sends breaks on a stream's line. Filled in by init_commander(); not to be used once that stream is closed, as
    /// the system gives the number of its descriptor to somebody else.
    class KAV_API Commander final : public Data_stream::Commander {
    public:
        /// `duration` is ignored: the system's own is 0.25 to 0.5 s. True when the line was told; a file has none.
        bool send_break(int duration) override;

    private:
        friend class Posix_data_stream;
        friend class Posix_threaded_data_stream;
        int _fd = -1;
    };

    /// Takes over open descriptors (-1: none; they may be the same one) and closes them.
    explicit Posix_data_stream(int read_fd = -1, int write_fd = -1);
    ~Posix_data_stream() override;

    /// Open for reading and writing through one descriptor; what was open is closed first. `create`: make the file if
    /// it is missing, for everybody as far as the process's mask allows. Not `blocking`: reads and writes that cannot
    /// go on fail. Tells standard error what it does; false when the system refuses. A terminal may become the
    /// controlling one of a process that leads a session without one.
    bool open(const char* path, bool create, bool blocking, bool append);
    /// Open one direction and leave the other as it is. Failures are reported on standard error.
    bool open_write(const char* path, bool create, bool blocking, bool append);
    bool open_read(const char* path, bool blocking);

    /// Each true when it closed something: close() the one descriptor of both directions, the other two the descriptor
    /// of a direction that has its own.
    bool close();
    bool close_read();
    bool close_write();

    /// Aim `c` at the write descriptor; false when there is none.
    bool init_commander(Commander& c) const;

    // Time-outs [ms] hold for a whole call, not for each byte. They return 1.

    int set_read_timeout(int ms) override;
    int set_default_read_timeout() override;
    int set_write_timeout(int ms) override;
    int set_default_write_timeout() override;

    using Data_stream::get_data;
    bool get_data(int n) override;
    /// Without a time-out one write and its result: the count, which may be short, or -1. With one, byte by byte until
    /// the time is over. -1 when closed.
    unsigned int _write(const unsigned char* data, unsigned int n) override;

    /// What all streams over descriptors share: `access` (O_RDWR and the like) plus a flag for each choice, created
    /// files for everybody, failures reported on standard error. The descriptor, or -1.
    static int open_descriptor(const char* path, int access, bool create, bool blocking, bool append);

protected:
    int read_fd() const { return _read_fd; }
    int write_fd() const { return _write_fd; }

private:
    bool close_side(int& fd);

    int _read_fd;
    int _write_fd; ///< the same value as _read_fd after open()
    int _read_timeout = no_timeout;
    int _write_timeout = no_timeout;
};
