// SPDX-License-Identifier: MIT
#include "glue/NV_store/Safe_file.h"
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "platform/crc32.h"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace NV_store {
namespace {

constexpr size_t most = 1 << 20; // [bytes] of a file that is read into memory

class Descriptor {
public:
    explicit Descriptor(int fd) : _fd(fd) {}
    ~Descriptor() {
        if (_fd < 0) return;
        const int reason = errno;
        ::close(_fd);
        errno = reason;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    operator int() const { return _fd; }
    bool close() { return ::close(std::exchange(_fd, -1)) == 0; }

private:
    int _fd;
};

bool exists(const std::string& path) {
    struct stat s;
    return lstat(path.c_str(), &s) == 0;
}

bool rename_file(const std::string& from, const std::string& to) { return rename(from.c_str(), to.c_str()) == 0; }

} // namespace

const char* to_text(Safe_result result) {
    switch (result) {
    case Safe_result::loaded:
        return "loaded";
    case Safe_result::cut_short:
        return "last changes incomplete";
    case Safe_result::fell_back:
        return "fell back to the generation before";
    case Safe_result::started_from_defaults:
        return "started from defaults";
    case Safe_result::damaged:
        return "damaged, started from defaults";
    case Safe_result::unreadable:
        return "unreadable, started from defaults";
    case Safe_result::saved:
        return "saved";
    case Safe_result::nothing_to_save:
        return "nothing to save";
    case Safe_result::disk_full:
        return "disk full";
    case Safe_result::read_only:
        return "read-only";
    case Safe_result::failed:
        break;
    }
    return "failed";
}

bool is_good(Safe_result result) {
    return result == Safe_result::loaded || result == Safe_result::started_from_defaults ||
           result == Safe_result::saved || result == Safe_result::nothing_to_save;
}

// ---- system calls

Safe_result failure_result(int error) {
    switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return Safe_result::disk_full;
    case EROFS:
    case EACCES:
    case EPERM:
        return Safe_result::read_only;
    default:
        return Safe_result::failed;
    }
}

bool sync_folder_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const Descriptor fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd >= 0 && fsync(fd) == 0;
}

static bool read_whole(int fd, std::string& bytes) {
    struct stat s;
    if (fstat(fd, &s) != 0) return false;
    if (!S_ISREG(s.st_mode) || s.st_size > static_cast<off_t>(most)) {
        errno = EFBIG;
        return false;
    }
    bytes.resize(static_cast<size_t>(s.st_size));
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = pread(fd, &bytes[done], bytes.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    bytes.resize(done);
    return true;
}

bool read_whole(const char* path, std::string& bytes) {
    const Descriptor fd(open(path, O_RDONLY | O_CLOEXEC));
    return fd >= 0 && read_whole(fd, bytes);
}

bool write_at(int fd, const std::string& bytes, size_t offset) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// ---- generations

Safe_file::Safe_file(const char* path, Check check) : _path(path), _check(std::move(check)) {}

/// Written, on the medium, and found good there.
bool Safe_file::write_new(const std::string& bytes) const {
    const std::string fresh = beside(".new");
    Descriptor fd(open(fresh.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    std::string back;
    if (fd < 0 || !write_at(fd, bytes, 0) || fsync(fd) != 0 || !read_whole(fd, back) || !fd.close()) return false;
    errno = EIO;
    return back == bytes && _check(fresh.c_str(), back);
}

bool Safe_file::is_good(const std::string& path) const {
    std::string bytes;
    return read_whole(path.c_str(), bytes) && _check(path.c_str(), bytes);
}

/// The file that is about to be replaced stays as the previous generation if it is good, and is set aside if not, so
/// that it does not push a good one out. Its own name stays in place all the time.
bool Safe_file::keep_previous() const {
    const bool good = is_good(_path);
    if (!good && !exists(_path)) return true;
    const std::string keep = beside(good ? ".bak" : ".bad"), spare = beside(".spare");
    unlink(spare.c_str());
    // Where there are no links, the name is free for a moment, in which the previous generation stands in.
    if (link(_path.c_str(), spare.c_str()) != 0) return rename_file(_path, keep) && sync_folder_of(_path);
    const bool kept = rename_file(spare, keep);
    unlink(spare.c_str()); // a rename between two names of one file leaves both
    return kept;
}

Safe_result Safe_file::replace(const std::string& bytes) {
    if (write_new(bytes) && keep_previous() && rename_file(beside(".new"), _path) && sync_folder_of(_path))
        return Safe_result::saved;
    const Safe_result result = failure_result(errno);
    unlink(beside(".new").c_str());
    return result;
}

Safe_result Safe_file::find(std::string& found) {
    unlink(beside(".new").c_str());
    unlink(beside(".spare").c_str());
    bool refused = false, hidden = false;
    for (const char* suffix : {"", ".bak"}) {
        const std::string candidate = beside(suffix);
        // Twice, for a medium that stumbles: what is refused is given up.
        if (is_good(candidate) || (exists(candidate) && is_good(candidate))) {
            found = candidate;
            return *suffix ? Safe_result::fell_back : Safe_result::loaded;
        }
        if (!exists(candidate)) continue;
        if (access(candidate.c_str(), R_OK) != 0) {
            hidden = true;
        } else if (!refused) {
            refused = true;
            rename_file(candidate, beside(".bad"));
        }
    }
    return refused ? Safe_result::damaged : hidden ? Safe_result::unreadable : Safe_result::started_from_defaults;
}

// ---- checksummed files

std::string padded_text(std::string text) {
    constexpr size_t chunk = File_checksummed_data_stream::chunk;
    if (text.size() >= 4 && text.find('\0', text.size() - 4) != std::string::npos) text.append(4, '\n');
    if (text.size() > chunk) text.append((chunk - text.size() % chunk) % chunk, '\n');
    return text;
}

static bool verifies(const char* path, const std::string&) { return File_checksummed_data_stream().open_read(path); }

Safe_result save_checksummed(const char* path, const std::string& text) {
    std::string bytes = padded_text(text);
    const auto crc = static_cast<uint32_t>(
        Util::crc32(File_checksummed_data_stream::seed, bytes.data(), static_cast<int>(bytes.size())));
    char trailer[32];
    snprintf(trailer, sizeof trailer, "\n%s%08X", File_checksummed_data_stream::crc32_head, static_cast<unsigned>(crc));
    return Safe_file(path, verifies).replace(bytes + trailer);
}

Safe_result load_checksummed(const char* path, std::string& text) {
    std::string found;
    const Safe_result result = Safe_file(path, verifies).find(found);
    text.clear();
    if (found.empty()) return result;
    constexpr size_t trailer = 16;
    std::string bytes;
    if (!read_whole(found.c_str(), bytes) || bytes.size() < trailer) return Safe_result::unreadable;
    text = bytes.substr(0, bytes.size() - trailer);
    return result;
}

} // namespace NV_store
