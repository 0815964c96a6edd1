// SPDX-License-Identifier: MIT
#include "platform/pcf_host.h"
#include "util/Mutex.h"
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

static_assert(sizeof(off_t) == 8,
              "sums of sizes are compared with a quota of 32 bits: build with _FILE_OFFSET_BITS=64");

// Names of our own are longer than any name of a file in the store can be.
const char lock_name[] = "flash-store-lock--held-by-the-process-that-has-it-mounted";
const char new_name[] = "flash-store-new--renamed-when-the-file-is-closed";
const char note_name[] = "flash-store-note--length-before-an-append-that-is-not-closed";
const char note_draft[] = "flash-store-note-draft--becomes-the-note";

bool valid_name(const char* name) {
    return name && *name && strlen(name) < PCF_NAME_SIZE && !strchr(name, '/') && strcmp(name, ".") != 0 &&
           strcmp(name, "..") != 0;
}

struct Write_slot {
    int fd = -1;
    std::string name;
    bool created = false;
    off_t old_size = 0;
    unsigned int written = 0;
    bool failed = false; ///< a write went wrong: nothing of it will stay
};

/// Callers read a few bytes at a time, a system call for each costs more than the bytes do.
struct Read_ahead {
    unsigned char bytes[4096];
    off_t at = 0;
    ssize_t count = 0; ///< of those that are buffered, from `at` on

    bool holds(off_t from, int n) const { return from >= at && from + n <= at + count; }
};

struct Injection {
    int countdown = 0;
    Pcf_host::Fault fault = Pcf_host::fault_none;
    int times = 0;
};

struct Store {
    Mutex mutex;
    int dir = -1; ///< -1: not mounted
    int lock = -1;
    unsigned int quota = 0;
    unsigned int used = 0; ///< [bytes] of the closed files
    int read_fd = -1;
    off_t read_at = 0;
    Read_ahead ahead;
    Write_slot writing;
    bool torn = false;               ///< an append could not be undone: its note is still there
    std::vector<std::string> listed; ///< the names when they were last counted, or at the mount
    Injection injections[Pcf_host::num_calls];

    bool mounted() const { return dir >= 0; }
    unsigned int free_bytes() const {
        const unsigned int taken = used + writing.written;
        return taken < quota ? quota - taken : 0;
    }
    Pcf_host::Fault fault(Pcf_host::Call call) {
        Injection& i = injections[call];
        if (i.times == 0 || --i.countdown > 0) return Pcf_host::fault_none;
        i.countdown = 1;
        --i.times;
        return i.fault;
    }
};

Store& store() {
    static Store& instance = *new Store; // callers may be statics that die late
    return instance;
}

bool sync_directory(int dir) { return fsync(dir) == 0; }

off_t size_of(int dir, const char* name) {
    struct stat s;
    return fstatat(dir, name, &s, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(s.st_mode) ? s.st_size : -1;
}

std::vector<std::string> list(int dir) {
    std::vector<std::string> names;
    const int fd = openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const d = fd >= 0 ? fdopendir(fd) : nullptr;
    if (!d) return names;
    while (const dirent* e = readdir(d))
        if (valid_name(e->d_name) && size_of(dir, e->d_name) >= 0) names.emplace_back(e->d_name);
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

// ---- the note

bool write_note(int dir, const std::string& name, off_t size) {
    const int fd = openat(dir, note_draft, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    const std::string text = std::to_string(size) + " " + name + "\n";
    const bool good = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd) == 0;
    close(fd);
    return good && renameat(dir, note_draft, dir, note_name) == 0 && sync_directory(dir);
}

bool drop_note(int dir) { return unlinkat(dir, note_name, 0) == 0 && sync_directory(dir); }

bool cut_back(int dir, const char* name, off_t size) {
    const int fd = openat(dir, name, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT;
    const bool good = ftruncate(fd, size) == 0 && fsync(fd) == 0;
    close(fd);
    return good;
}

/// The name is all between the first blank and the last LF: it may hold, and begin with, any number of either.
bool parse_note(const std::string& text, off_t& size, std::string& name) {
    const size_t blank = text.find(' ');
    if (blank == std::string::npos || text.back() != '\n') return false;
    const auto [end, error] = std::from_chars(text.data(), text.data() + blank, size);
    name = text.substr(blank + 1, text.size() - blank - 2);
    return error == std::errc() && end == text.data() + blank && size >= 0 && valid_name(name.c_str());
}

/// Undo what a crash left half done.
bool recover(int dir) {
    unlinkat(dir, new_name, 0);
    unlinkat(dir, note_draft, 0);
    const int fd = openat(dir, note_name, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT;
    char text[128];
    const ssize_t n = read(fd, text, sizeof text);
    close(fd);
    if (n < 0) return false;
    off_t size = 0;
    std::string name;
    if (parse_note(std::string(text, static_cast<size_t>(n)), size, name) && !cut_back(dir, name.c_str(), size))
        return false;
    return drop_note(dir);
}

unsigned int total_size(int dir) {
    off_t sum = 0;
    for (const std::string& name : list(dir)) sum += size_of(dir, name.c_str());
    return static_cast<unsigned int>(std::min<off_t>(sum, UINT_MAX));
}

/// Undo now, as the next mount would, what could not be undone while the medium was not well.
bool make_whole(Store& s) {
    if (!s.torn) return true;
    s.torn = !recover(s.dir);
    s.used = total_size(s.dir);
    s.ahead.count = 0;
    return !s.torn;
}

// ---- slots

void drop_slots(Store& s) {
    if (s.read_fd >= 0) close(s.read_fd);
    s.read_fd = -1;
    if (s.writing.fd >= 0) close(s.writing.fd);
    s.writing = Write_slot();
}

PcfResult open_write_slot(Store& s, const char* path, bool create) {
    if (s.writing.fd >= 0) return PCF_BUSY;
    if (!make_whole(s)) return PCF_FAILED; // a new note would take the place of the one that is needed
    const off_t size = size_of(s.dir, path);
    if (create == (size >= 0)) return create ? PCF_FAILED : PCF_NO_FILE;
    int fd = -1;
    if (create) {
        fd = openat(s.dir, new_name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    } else if (write_note(s.dir, path, size)) {
        fd = openat(s.dir, path, O_WRONLY | O_APPEND | O_CLOEXEC);
        if (fd < 0) drop_note(s.dir);
    }
    if (fd < 0) return PCF_FAILED;
    s.writing = {fd, path, create, create ? 0 : size, 0, false};
    return PCF_DONE;
}

/// Make the open file permanent, or as if it had never been opened.
bool close_write_slot(Store& s, bool keep) {
    const Write_slot w = s.writing;
    s.writing = Write_slot();
    s.ahead.count = 0; // what was read ahead may be taken back
    const bool synced = keep && fsync(w.fd) == 0;
    close(w.fd);
    bool kept = false;
    if (w.created) {
        kept = synced && renameat(s.dir, new_name, s.dir, w.name.c_str()) == 0 && sync_directory(s.dir);
        if (!kept) unlinkat(s.dir, new_name, 0);
    } else {
        const bool undone = !synced && cut_back(s.dir, w.name.c_str(), w.old_size);
        // A note that stays would undo the append at the next mount; one that is needed must stay.
        const bool over = (synced || undone) && drop_note(s.dir);
        s.torn = !over;
        kept = over && synced;
    }
    const off_t now = size_of(s.dir, w.name.c_str());
    s.used += static_cast<unsigned int>(std::max<off_t>(now, 0) - w.old_size);
    return kept;
}

} // namespace

bool Pcf_host::mount(const char* directory, unsigned int quota) {
    unmount();
    Store& s = store();
    const Scoped_lock held(s.mutex);
    const int dir = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return false;
    // Not for writing: it would keep the medium from being made read-only.
    const int lock = openat(dir, lock_name, O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    if (lock < 0 || flock(lock, LOCK_EX | LOCK_NB) != 0 || !recover(dir)) {
        const int reason = errno;
        if (lock >= 0) close(lock);
        close(dir);
        errno = reason;
        return false;
    }
    s.dir = dir;
    s.lock = lock;
    s.torn = false;
    s.quota = quota;
    s.used = total_size(dir);
    s.listed = list(dir);
    for (Injection& i : s.injections) i = Injection();
    return true;
}

void Pcf_host::unmount() {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    if (!s.mounted()) return;
    drop_slots(s);
    close(s.dir);
    close(s.lock);
    s.dir = s.lock = -1;
}

void Pcf_host::inject(Call call, int nth, Fault fault, int times) {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    s.injections[call] = {nth, fault, times};
}

// ---- the functions of the store

using namespace Pcf_host;

int pcfIsMounted() {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    return s.mounted();
}

int pcfExists(const char* path) {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    return s.mounted() && valid_name(path) && size_of(s.dir, path) >= 0;
}

PcfResult pcfOpenRead(const char* path, unsigned int offset, int) {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    if (!s.mounted() || !valid_name(path)) return PCF_FAILED;
    const Fault fault = s.fault(call_open_read);
    if (fault != fault_none) return fault == fault_busy ? PCF_BUSY : PCF_FAILED;
    if (s.read_fd >= 0) return PCF_BUSY;
    if (s.writing.fd < 0) make_whole(s);
    if (size_of(s.dir, path) < 0) return PCF_NO_FILE;
    s.read_fd = openat(s.dir, path, O_RDONLY | O_CLOEXEC);
    s.read_at = offset;
    s.ahead.count = 0;
    return s.read_fd >= 0 ? PCF_DONE : PCF_FAILED;
}

int pcfRead(void* dest, int n, PcfResult* result, int) {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    *result = PCF_FAILED;
    if (s.read_fd < 0 || n < 0 || s.fault(call_read) != fault_none) return 0;
    Read_ahead& ahead = s.ahead;
    if (n > static_cast<int>(sizeof ahead.bytes)) n = sizeof ahead.bytes;
    // Less than is asked for is not believed to be the end: the file may have grown meanwhile.
    if (!ahead.holds(s.read_at, n)) {
        ahead.at = s.read_at;
        ahead.count = pread(s.read_fd, ahead.bytes, sizeof ahead.bytes, s.read_at);
        if (ahead.count < 0) return 0;
    }
    const off_t got = std::min<off_t>(n, ahead.at + ahead.count - s.read_at);
    memcpy(dest, ahead.bytes + (s.read_at - ahead.at), static_cast<size_t>(got));
    s.read_at += got;
    *result = PCF_DONE;
    return static_cast<int>(got);
}

PcfResult pcfCloseRead(int) {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    if (s.read_fd < 0) return PCF_NOTHING;
    close(s.read_fd);
    s.read_fd = -1;
    return PCF_DONE;
}

static PcfResult open_for_writing(const char* path, bool create) {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    if (!s.mounted() || !valid_name(path)) return PCF_FAILED;
    const Fault fault = s.fault(create ? call_create : call_open_write);
    if (fault != fault_none) return fault == fault_busy ? PCF_BUSY : PCF_FAILED;
    return open_write_slot(s, path, create);
}

PcfResult pcfCreateWrite(const char* path, int) { return open_for_writing(path, true); }
PcfResult pcfOpenWrite(const char* path, int) { return open_for_writing(path, false); }

int pcfWrite(const void* data, int n, int) {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    if (s.writing.fd < 0 || n < 0) return -1;
    int wanted = static_cast<int>(std::min(static_cast<unsigned int>(n), s.free_bytes()));
    const Fault fault = s.fault(call_write);
    if (fault == fault_short_write) wanted = std::min(wanted, n / 2);
    const ssize_t written = fault == fault_error ? -1 : write(s.writing.fd, data, static_cast<size_t>(wanted));
    if (written > 0) s.writing.written += static_cast<unsigned int>(written);
    if (written != n) s.writing.failed = true;
    return static_cast<int>(written);
}

int pcfCloseWrite(int) {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    if (s.writing.fd < 0) return 0;
    const bool fault = s.fault(call_close_write) != fault_none;
    return close_write_slot(s, !s.writing.failed && !fault);
}

PcfResult pcfRemove(const char* path) {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    if (!s.mounted() || !valid_name(path) || s.fault(call_remove) != fault_none) return PCF_FAILED;
    if (s.writing.fd >= 0 && s.writing.name == path) return PCF_BUSY;
    const off_t size = size_of(s.dir, path);
    if (size < 0) return PCF_NO_FILE;
    if (unlinkat(s.dir, path, 0) != 0) return PCF_FAILED;
    s.used -= static_cast<unsigned int>(size);
    return sync_directory(s.dir) ? PCF_DONE : PCF_FAILED;
}

int pcfInfo(PcfInfo* info) {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    if (!s.mounted() || s.fault(call_info) != fault_none) return 0;
    info->size = s.quota;
    info->free_bytes = s.free_bytes();
    return 1;
}

unsigned int pcfGetNumFiles() {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    s.listed = s.mounted() ? list(s.dir) : std::vector<std::string>();
    return static_cast<unsigned int>(s.listed.size());
}

int pcfGetFileName(unsigned int index, char* name) {
    Store& s = store();
    const Scoped_lock held(s.mutex);
    if (!s.mounted()) return 0;
    if (index == 0 || s.listed.empty()) s.listed = list(s.dir); // who begins at the front need not have counted
    if (index >= s.listed.size()) return 0;
    const std::string& found = s.listed[index];
    if (size_of(s.dir, found.c_str()) < 0) return 0; // removed since
    strcpy(name, found.c_str());
    return 1;
}
