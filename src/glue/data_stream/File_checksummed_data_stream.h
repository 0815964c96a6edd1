// SPDX-License-Identifier: MIT
#pragma once
#include "glue/data_stream/File_data_stream.h"
#include "util/api.h"
#include <cstdint>

/// A text file with a CRC-32 trailer, written whole and read only when the trailer is there and right:
///
///     0 .. L-1    the bytes written, in order
///     L           LF
///     L+1 .. L+7  LF and "CRC32="
///     L+8 .. L+15 the checksum as 8 upper-case hexadecimal digits
///
/// A reader sees exactly the bytes written and then the end of data.
///
/// Two limits, which existing files rely on: of payloads above 255 bytes only those verify whose length is a multiple
/// of 255 (NV_store's safe saving pads to that), and a payload must not have a zero among its last four bytes.
class KAV_API File_checksummed_data_stream : public File_data_stream {
public:
    static constexpr uint32_t seed = 0x5CA1AB1E; ///< what the checksum starts from
    static constexpr int chunk = 255;            ///< [bytes] verified at a time
    static const char* const crc32_head;         ///< "\nCRC32="
    static constexpr int least_size = 15;        ///< [bytes] of a file that can hold a trailer

    /// The end of a file of `size` [bytes] in which the trailer is looked for [bytes]: stray ones may follow it.
    static int tail_size(int64_t size) { return size < least_size + slack ? least_size : least_size + slack; }
    /// Find the trailer in such an end, which a zero follows: the place in it behind the payload (-1: there is not even
    /// the LF) and the checksum. False when there is none. The search ends at a zero byte.
    static bool find_trailer(const char* tail, int& payload_end, uint32_t& stored);

    File_checksummed_data_stream();

    /// Verify and open: false, with one line on the debug output, when the file is missing, cut or damaged.
    bool open_read(const char* path);
    bool open_read(int fd); ///< always false: a descriptor cannot be verified
    /// Begin a new file, in place of an old one: false, with one line, when that fails. What was open for writing is
    /// closed first, without a trailer.
    bool open_write(const char* path);
    bool close_read();
    /// Append the trailer and close. After a write error there is no trailer, so that the file will not verify; a
    /// stream destroyed without this call leaves none either. False, with one line, when not open.
    bool close_write();

    using Data_stream::get_data;
    bool get_data(int n) override;
    unsigned int _write(const unsigned char* data, unsigned int n) override;

    uint32_t get_crc() const { return _crc; } ///< of what was written so far

private:
    uint32_t _crc = seed;

public:
    /// [bytes] of payload in the file open for reading; -1 for one that holds nothing but a trailer of 15 bytes.
    int32_t read_crc32_seek_off = 0;

private:
    static constexpr int slack = 5; ///< [bytes] the separating LF and stray bytes behind
    bool verify(const char* path);
    bool read_trailer(const char* path, int64_t size, uint32_t& stored);
    bool checksum_payload(const char* path, uint32_t& crc) const;
    void set_idle_name();
};
