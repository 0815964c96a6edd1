// SPDX-License-Identifier: MIT
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "platform/crc32.h"
#include "util/Debug_print.h"
#include "util/assertion.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

const char* const File_checksummed_data_stream::crc32_head = "\nCRC32=";

namespace {

/// Hexadecimal text as the C library reads "%x"; more digits than 32 bits hold give the largest value, as on the board.
bool parse_hex(const char* text, uint32_t& value) {
    char* end;
    const unsigned long long wide = strtoull(text, &end, 16);
    if (end == text) return false;
    value = static_cast<uint32_t>(std::min<unsigned long long>(wide, UINT32_MAX));
    return true;
}

} // namespace

File_checksummed_data_stream::File_checksummed_data_stream() { set_idle_name(); }

void File_checksummed_data_stream::set_idle_name() { set_name("CRCFILE(%p)", static_cast<void*>(this)); }

bool File_checksummed_data_stream::open_write(const char* path) {
    // First, so that nothing buffered goes into a file that was cut to nothing already: it may be the same one.
    if (File_data_stream::close_write()) set_idle_name();
    set_write_file(fopen(path, "w"));
    if (!_write_file) {
        Debug_print::dprint("Error opening file [%s]\n", path);
        return false;
    }
    _crc = seed;
    set_name("CRCFILE(%p, %s, w)", static_cast<void*>(this), path);
    return true;
}

unsigned int File_checksummed_data_stream::_write(const unsigned char* data, unsigned int n) {
    const unsigned int written = File_data_stream::_write(data, n);
    // A closed file answers with -1, which is no count.
    const int count = static_cast<int>(written);
    if (count >= 1) _crc = static_cast<uint32_t>(Util::crc32(_crc, data, count));
    return written;
}

bool File_checksummed_data_stream::close_write() {
    if (!_write_file) {
        Debug_print::dprint("CRCFILE not open for write!\n");
        return false;
    }
    if (!ferror(_write_file)) {
        char trailer[1 + least_size + 1];
        const int n = snprintf(trailer, sizeof trailer, "\n%s%08X", crc32_head, static_cast<unsigned>(_crc));
        if (fwrite(trailer, static_cast<size_t>(n), 1, _write_file) != 1)
            Debug_print::dprint("CRCFILE failed to write CRC32!\n");
    }
    File_data_stream::close_write();
    set_idle_name();
    return true;
}

bool File_checksummed_data_stream::close_read() {
    const bool was_open = File_data_stream::close_read();
    set_idle_name();
    return was_open;
}

bool File_checksummed_data_stream::open_read(int) { return false; }

bool File_checksummed_data_stream::open_read(const char* path) {
    if (_read_file) close_read();
    set_read_file(fopen(path, "rb"));
    if (!_read_file) {
        Debug_print::dprint("Error opening file [%s]\n", path);
        return false;
    }
    if (!verify(path)) {
        set_read_file(nullptr);
        return false;
    }
    rewind(_read_file);
    set_name("CRCFILE(%p, %s, r)", static_cast<void*>(this), path);
    return true;
}

bool File_checksummed_data_stream::verify(const char* path) {
    struct stat infile_stat;
    if (fstat(fileno(_read_file), &infile_stat) != 0) return false;
    uint32_t stored;
    if (!read_trailer(path, infile_stat.st_size, stored)) return false;
    if (infile_stat.st_size - read_crc32_seek_off <= 0)
        Util::assertion_failed("infile_stat.st_size - read_crc32_seek_off > 0",
                               "glue/data_stream/File_checksummed_data_stream", 1,
                               "bool File_checksummed_data_stream::open_read(const char*)");
    uint32_t crc = seed;
    if (!checksum_payload(path, crc)) return false;
    if (stored != crc) {
        Debug_print::dprint("Error CRC32 mismatch on checksummed file [%s]\n", path);
        return false;
    }
    return true;
}

bool File_checksummed_data_stream::find_trailer(const char* tail, int& payload_end, uint32_t& stored) {
    const char* const head = strstr(tail, crc32_head);
    if (!head || !parse_hex(head + strlen(crc32_head), stored)) return false;
    payload_end = static_cast<int>(head - tail) - 1;
    return true;
}

/// Find where the payload ends and what checksum the trailer holds.
bool File_checksummed_data_stream::read_trailer(const char* path, int64_t size, uint32_t& stored) {
    if (size < least_size) {
        Debug_print::dprint("Empty or truncated checksummed file [%s]\n", path);
        return false;
    }
    const int tail = tail_size(size);
    int64_t tail_at = -1;
    if (size > INT32_MAX)
        errno = EFBIG;
    else if (fseek(_read_file, -tail, SEEK_END) == 0)
        tail_at = ftell(_read_file);
    if (tail_at < 0) {
        Debug_print::dprint("CRC32 seek failed in checksummed file [%s]: %s\n", path, strerror(errno));
        return false;
    }
    char text[least_size + 16] = {};
    if (fread(text, static_cast<size_t>(tail), 1, _read_file) != 1) {
        if (!ferror(_read_file)) errno = ENODATA; // somebody cuts it
        Debug_print::dprint("Short read while seeking CRC32 in checksummed file [%s]: %s\n", path, strerror(errno));
        return false;
    }
    int payload_end;
    if (!find_trailer(text, payload_end, stored)) { // a payload with a zero at its end is refused, too
        Debug_print::dprint("Failure while reading CRC32 in checksummed file [%s]\n", path);
        return false;
    }
    read_crc32_seek_off = static_cast<int32_t>(tail_at + payload_end);
    return true;
}

/// The checksum as files in the field were verified: the last chunk is not cut to the payload's end, so behind a
/// payload above 255 bytes that is no multiple of them it runs into the trailer and the file is refused.
bool File_checksummed_data_stream::checksum_payload(const char* path, uint32_t& crc) const {
    const int32_t length = read_crc32_seek_off;
    rewind(_read_file);
    for (int64_t count = 0; count < length;) {
        unsigned char bytes[chunk];
        const int wanted = count + chunk <= length ? chunk : std::min<int32_t>(length, chunk);
        const size_t got = fread(bytes, 1, static_cast<size_t>(wanted), _read_file);
        if (got == 0) {
            if (!ferror(_read_file)) break;
            Debug_print::dprint("CRC32 calc read failed file [%s]: %s\n", path, strerror(errno));
            return false;
        }
        crc = static_cast<uint32_t>(Util::crc32(crc, bytes, static_cast<int>(got)));
        count += static_cast<int64_t>(got);
    }
    return true;
}

bool File_checksummed_data_stream::get_data(int n) {
    if (!_read_file || n < 0) return false;
    const int64_t position = ftell(_read_file);
    if (position < 0) return false;
    if (position + n <= read_crc32_seek_off) return File_data_stream::get_data(n);
    if (position < read_crc32_seek_off) File_data_stream::get_data(static_cast<int>(read_crc32_seek_off - position));
    return false;
}
