// SPDX-License-Identifier: MIT
#include "glue/NV_store/Safe_file.h"
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "platform/crc32.h"
#include "util/Debug_print.h"
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace NV_store {
namespace {

constexpr size_t max_size = 1 << 20; // [bytes] of a file that is read into memory

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

constexpr int no_regular_file = -1; ///< beside the system's error numbers

std::string text_of(int error) { return error == no_regular_file ? "Not a regular file" : strerror(error); }

bool exists(const std::string& path) {
    struct stat s;
    return lstat(path.c_str(), &s) == 0;
}

/// Whether a name beside the file is free, or was given by us: errno tells what stands there instead.
bool is_ours(const std::string& path) {
    struct stat s;
    if (lstat(path.c_str(), &s) != 0) return errno == ENOENT;
    if (S_ISREG(s.st_mode)) return access(path.c_str(), R_OK) == 0;
    errno = S_ISDIR(s.st_mode) ? EISDIR : no_regular_file;
    return false;
}

/// False with errno when it stays because the medium does not let us; what is not ours is left to whoever comes upon
/// it.
bool discard(const std::string& path) { return !is_ours(path) || unlink(path.c_str()) == 0 || errno == ENOENT; }

bool rename_file(const std::string& from, const std::string& to) { return rename(from.c_str(), to.c_str()) == 0; }

/// With the slash behind it; empty: the current one.
std::string folder_of(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

/// Where symbolic links lead to. In a cycle it is one of them, and opening it says so.
std::string target_of(std::string path) {
    for (int i = 0; i < 40; ++i) {
        char to[PATH_MAX];
        const ssize_t n = readlink(path.c_str(), to, sizeof to);
        if (n <= 0) break;
        const std::string next(to, static_cast<size_t>(n));
        path = next[0] == '/' ? next : folder_of(path) + next;
    }
    return path;
}

/// Take the lock of a folder, to be the only one who changes our files in it.
class Folder {
public:
    explicit Folder(const std::string& path)
        : _fd(open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (_fd < 0) return;
        // Where folders cannot be locked we go on as well.
        for (int ms = 0; ms < max_turn && flock(_fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; ++ms)
            usleep(1000);
    }
    ~Folder() {
        const int reason = errno;
        flock(_fd, LOCK_UN); // a process that was forked meanwhile has the descriptor too
        errno = reason;
    }
    bool is_open() const { return _fd >= 0; }
    /// Make what happened in it permanent.
    bool sync() const { return fsync(_fd) == 0; }

private:
    static constexpr int max_turn = 10000; // [ms]
    const Descriptor _fd;
};

bool read_whole(int fd, std::string& bytes, struct stat& s) {
    if (fstat(fd, &s) != 0) return false;
    if (!S_ISREG(s.st_mode) || s.st_size > static_cast<off_t>(max_size)) {
        errno = S_ISREG(s.st_mode) ? EFBIG : no_regular_file;
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

/// The whole file; false with errno when it cannot be read, or is larger than any of ours, or is none.
bool read_whole(const std::string& path, std::string& bytes, struct stat& s) {
    if (stat(path.c_str(), &s) != 0) return false;
    if (!S_ISREG(s.st_mode)) { // to open a device may set something off
        errno = S_ISDIR(s.st_mode) ? EISDIR : no_regular_file;
        return false;
    }
    // Not blocking, should it have become a FIFO meanwhile.
    const Descriptor fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return fd >= 0 && read_whole(fd, bytes, s);
}

/// Write at an offset, going on after interruptions; false with errno.
bool write_at(int fd, const std::string& bytes, size_t offset) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

/// Give a new file the rights of an old one, as far as the system lets us and the medium has them. A group that cannot
/// be kept has no rights.
void copy_rights(const std::string& from, int fd) {
    struct stat s;
    if (stat(from.c_str(), &s) != 0) return;
    const bool same = fchown(fd, s.st_uid, s.st_gid) == 0 || fchown(fd, static_cast<uid_t>(-1), s.st_gid) == 0;
    if (fchmod(fd, s.st_mode & (same ? 07777 : 07707)) != 0) return;
}

std::array<int64_t, 5> stamp_of(const struct stat& s) {
    return {static_cast<int64_t>(s.st_dev), static_cast<int64_t>(s.st_ino), s.st_size, s.st_mtim.tv_sec,
            s.st_mtim.tv_nsec};
}

/// The result that an errno of a failed save stands for.
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
        return "unreadable, left as it is";
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

// ---- generations

Safe_file::Safe_file(const char* path, Check check, void* whose) : _path(path), _check(check), _whose(whose) {}

Safe_result Safe_file::report(const char* who, Safe_result result, const std::string& reason) const {
    if (!NV_store::is_good(result))
        Debug_print::dprint("%s %s: %s%s%s\n", who, _path.c_str(), to_text(result), reason.empty() ? "" : ": ",
                            reason.c_str());
    return result;
}

/// False while there is something that find() could not read.
bool Safe_file::begin() {
    _target = target_of(_path);
    if (!_unread.empty() && exists(_unread)) return false;
    _unread.clear();
    _reason.clear();
    return true;
}

/// As errno says. `suffix` names the file beside ours that is meant.
Safe_result Safe_file::failure(const char* suffix) {
    _reason = (*suffix ? suffix + std::string(": ") : "") + text_of(errno);
    return failure_result(errno);
}

Safe_file::Finding Safe_file::examine(const std::string& path) {
    _left = {};
    Finding finding = absent;
    for (int i = 0; i < 2; ++i) { // twice, for a medium that stumbles: what is refused is given up
        std::string bytes;
        struct stat s;
        if (!read_whole(path, bytes, s)) {
            if (errno == ENOENT) return absent;
            finding = unreadable;
            _reason = text_of(errno);
        } else if (_check(_whose, bytes)) {
            if (path == _target) _left = stamp_of(s);
            return good;
        } else {
            finding = refused;
        }
    }
    return finding;
}

bool Safe_file::has_newest() { return begin() && examine(_target) == good; }

bool Safe_file::is_as_left() {
    struct stat s;
    return begin() && _left != Stamp{} && stat(_target.c_str(), &s) == 0 && stamp_of(s) == _left;
}

/// The first names are kept, since damage has its cause at its beginning; the last one is used again and again.
std::string Safe_file::name_for_refused() const {
    std::string name = beside(".bad");
    for (int n = 2; n < 10 && exists(name); ++n) name = beside(".bad") + std::to_string(n);
    return name;
}

bool Safe_file::write_synced(const std::string& path, const std::string& bytes, std::string& back) const {
    if (!discard(path)) return false;
    Descriptor fd(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd < 0) return false;
    copy_rights(exists(_target) ? _target : beside(".bak"), fd);
    struct stat s;
    return write_at(fd, bytes, 0) && fsync(fd) == 0 && read_whole(fd, back, s) && fd.close();
}

/// Written, on the medium, and found good there.
bool Safe_file::write_new(const std::string& bytes) {
    std::string back;
    if (!write_synced(beside(".new"), bytes, back)) return false;
    errno = EIO;
    return back == bytes && _check(_whose, back);
}

/// The file that is about to be replaced stays as the previous generation if it is good, and is set aside if not, so
/// that it does not push a good one out. Its own name stays in place all the time: where there are no links it is
/// copied.
bool Safe_file::keep_previous(Finding previous) {
    if (previous == absent) return true;
    const std::string keep = previous == good ? beside(".bak") : name_for_refused(), spare = beside(".spare");
    if (!discard(spare)) return false;
    if (link(_target.c_str(), spare.c_str()) != 0) {
        std::string bytes, back;
        struct stat s;
        if (!read_whole(_target, bytes, s) || !write_synced(spare, bytes, back)) return false;
    }
    const bool kept = rename_file(spare, keep);
    const int reason = errno;
    discard(spare); // a rename between two names of one file leaves both
    errno = reason;
    return kept;
}

Safe_result Safe_file::replace(const std::string& bytes) {
    if (!begin()) return Safe_result::unreadable;
    const Folder folder(folder_of(_target));
    if (!folder.is_open()) return failure();
    const Finding previous = examine(_target);
    if (previous == unreadable) return Safe_result::unreadable;
    _left = {};
    for (const char* suffix : {".bak", ".new", ".spare"})
        if (!is_ours(beside(suffix))) return failure(suffix);
    const bool saved =
        write_new(bytes) && keep_previous(previous) && rename_file(beside(".new"), _target) && folder.sync();
    struct stat s;
    if (saved) {
        if (stat(_target.c_str(), &s) == 0) _left = stamp_of(s);
        return Safe_result::saved;
    }
    const Safe_result result = failure();
    discard(beside(".new"));
    discard(beside(".spare"));
    return result;
}

std::optional<Safe_result> Safe_file::append(const std::string& bytes, size_t offset) {
    if (!begin()) return Safe_result::unreadable;
    const Folder folder(folder_of(_target));
    if (!folder.is_open()) return failure();
    if (!is_as_left()) return {};
    const auto end = static_cast<off_t>(offset);
    const auto size = static_cast<off_t>(_left[2]);
    _left = {};
    Descriptor fd(open(_target.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    // What may be replaced but not written is saved anew.
    if (fd < 0 && errno == EACCES) return {};
    if (fd < 0) return failure();
    // What a cut left behind the last whole record goes first, else a load would end there.
    bool done = size <= end || (ftruncate(fd, end) == 0 && fsync(fd) == 0);
    done = done && write_at(fd, bytes, offset) && fsync(fd) == 0;
    if (!done) {
        const Safe_result result = failure();
        if (ftruncate(fd, end) == 0) fsync(fd);
        return result;
    }
    struct stat s;
    const bool known = fstat(fd, &s) == 0;
    if (!fd.close()) return failure();
    if (known) _left = stamp_of(s);
    return Safe_result::saved;
}

Safe_result Safe_file::not_read(const std::string& path) {
    _unread = path;
    return Safe_result::unreadable;
}

void Safe_file::set_aside(const std::string& path) {
    const std::string name = name_for_refused();
    if (rename_file(path, name)) _reason = "kept as " + name.substr(folder_of(name).size());
}

Safe_result Safe_file::find(std::string& found) {
    found.clear();
    _unread.clear();
    begin();
    const Folder folder(folder_of(_target));
    const Finding newest = examine(_target);
    if (newest == unreadable) return not_read(_path);
    discard(beside(".new"));
    discard(beside(".spare"));
    if (newest == good) {
        found = _target;
        return Safe_result::loaded;
    }
    const Finding before = examine(beside(".bak"));
    if (before == unreadable) {
        _reason = ".bak: " + _reason;
        return not_read(beside(".bak"));
    }
    if (newest == refused || before == refused) set_aside(newest == refused ? _target : beside(".bak"));
    if (before == good) {
        found = beside(".bak");
        return Safe_result::fell_back;
    }
    return newest == refused || before == refused ? Safe_result::damaged : Safe_result::started_from_defaults;
}

// ---- checksummed files

std::string padded_text(std::string text) {
    constexpr size_t chunk = File_checksummed_data_stream::chunk;
    if (text.size() >= 4 && text.find('\0', text.size() - 4) != std::string::npos) text.append(4, '\n');
    if (text.size() > chunk) text.append((chunk - text.size() % chunk) % chunk, '\n');
    return text;
}

static std::string trailer_of(const char* bytes, size_t n) {
    const auto crc = static_cast<uint32_t>(Util::crc32(File_checksummed_data_stream::seed, bytes, static_cast<int>(n)));
    char trailer[32];
    snprintf(trailer, sizeof trailer, "\n%s%08X", File_checksummed_data_stream::crc32_head, static_cast<unsigned>(crc));
    return trailer;
}

/// The length of the payload that the checksummed file stream finds, none when it refuses the file: without a second
/// look at the medium, which may fail for another reason.
static std::optional<size_t> payload_of(const std::string& bytes) {
    using Stream = File_checksummed_data_stream;
    const auto size = static_cast<int>(bytes.size());
    if (size < Stream::least_size) return {};
    const int tail_at = size - Stream::tail_size(size);
    int end;
    uint32_t stored;
    if (!Stream::find_trailer(bytes.c_str() + tail_at, end, stored)) return {};
    const int n = std::max(0, tail_at + end);
    // The last chunk runs into the trailer.
    const int covered =
        n <= Stream::chunk ? n : std::min(size, (n + Stream::chunk - 1) / Stream::chunk * Stream::chunk);
    if (stored != static_cast<uint32_t>(Util::crc32(Stream::seed, bytes.data(), covered))) return {};
    return static_cast<size_t>(n);
}

Safe_text::Safe_text(const char* path)
    : _file(
          path,
          [](void* text, std::string& bytes) {
              const std::optional<size_t> length = payload_of(bytes);
              if (!length) return false;
              bytes.resize(*length);
              static_cast<Safe_text*>(text)->_text = std::move(bytes);
              return true;
          },
          this) {}

Safe_result Safe_text::save(const std::string& text) {
    const std::string bytes = padded_text(text);
    return _file.replace(bytes + trailer_of(bytes.data(), bytes.size()));
}

Safe_result Safe_text::load(std::string& text) {
    std::string found;
    const Safe_result result = _file.find(found);
    text = found.empty() ? "" : std::move(_text);
    return result;
}

Safe_result save_checksummed(const char* path, const std::string& text) { return Safe_text(path).save(text); }

Safe_result load_checksummed(const char* path, std::string& text) { return Safe_text(path).load(text); }

} // namespace NV_store
