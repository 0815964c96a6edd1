// SPDX-License-Identifier: MIT
#pragma once
#include <algorithm>
#include <cerrno>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

/// Stands in for the system calls that read and change files, in a program that includes this once: the nth of them
/// ends the process or fails, and what is renamed or left without having been synced is noted. Where the medium has no
/// links they fail besides. Or each read and write moves one byte.
namespace Faulty {

enum Kind { none, cut_before, cut_without_links, error_once, error_for_ever, one_byte };
constexpr int cut_status = 99;

inline bool armed = false;
inline std::function<void()> watch; ///< is called before each
inline Kind kind;
inline int nth, error;           ///< which call, from 1 on; errno of a failing one
inline int calls;                ///< counted since arm()
inline std::set<ino_t> unsynced; ///< files and folders with changes that no sync followed
inline std::string hasty;        ///< what was renamed before its content was synced

inline void arm(Kind k, int which, int reason = 0) {
    kind = k, nth = which, error = reason, calls = 0;
    unsynced.clear(), hasty.clear();
    armed = true;
}

template <class Real>
auto call(Real real) -> decltype(real()) {
    if (!armed) return real();
    if (watch) watch();
    const bool due = ++calls == nth;
    if (due && (kind == cut_before || kind == cut_without_links)) _exit(cut_status);
    if ((due && kind == error_once) || (calls >= nth && kind == error_for_ever)) return errno = error, -1;
    return real();
}

inline size_t room(size_t n) { return armed && kind == one_byte ? std::min<size_t>(n, 1) : n; }

inline ino_t inode(int folder, const char* path = "") {
    struct stat s;
    return fstatat(folder, path, &s, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH) == 0 ? s.st_ino : 0;
}

inline void changed_folder(int folder, const std::string& path) {
    const size_t slash = path.rfind('/');
    unsynced.insert(slash == std::string::npos ? inode(folder) : inode(AT_FDCWD, path.substr(0, slash + 1).c_str()));
}

inline void renamed(int from_folder, const char* from, int to_folder, const char* to) {
    if (unsynced.count(inode(from_folder, from))) hasty = from;
    changed_folder(to_folder, to);
}

} // namespace Faulty

#define FAULTY_FUNCTION extern "C" __attribute__((visibility("default")))
// Defines the stand-in of a call, which notes something first. What has to do with file sizes stands in for the 64-bit
// form, whose name differs where the machine's word is shorter.
#define FAULTY_CALL(type, name, real_name, parameters, arguments, note)                                                \
    FAULTY_FUNCTION type name parameters {                                                                             \
        static const auto real = reinterpret_cast<type(*) parameters>(dlsym(RTLD_NEXT, real_name));                    \
        if (Faulty::armed) {                                                                                           \
            note;                                                                                                      \
        }                                                                                                              \
        return Faulty::call([=] { return real arguments; });                                                           \
    }
#define FAULTY_CHANGE(type, name, real_name, parameters, arguments)                                                    \
    FAULTY_CALL(type, name, real_name, parameters, arguments, Faulty::unsynced.insert(Faulty::inode(fd)))

FAULTY_CHANGE(ssize_t, write, "write", (int fd, const void* data, size_t n), (fd, data, Faulty::room(n)))
FAULTY_CHANGE(ssize_t, pwrite, "pwrite64", (int fd, const void* data, size_t n, off_t at),
              (fd, data, Faulty::room(n), at))
FAULTY_CHANGE(int, ftruncate, "ftruncate64", (int fd, off_t size) noexcept, (fd, size))
FAULTY_CALL(int, fsync, "fsync", (int fd), (fd), Faulty::unsynced.erase(Faulty::inode(fd)))
FAULTY_CALL(ssize_t, read, "read", (int fd, void* to, size_t n), (fd, to, Faulty::room(n)), )
FAULTY_CALL(ssize_t, pread, "pread64", (int fd, void* to, size_t n, off_t at), (fd, to, Faulty::room(n), at), )
FAULTY_CALL(int, close, "close", (int fd), (fd), )
FAULTY_CALL(int, rename, "rename", (const char* from, const char* to) noexcept, (from, to),
            Faulty::renamed(AT_FDCWD, from, AT_FDCWD, to))
FAULTY_CALL(int, renameat, "renameat", (int a, const char* from, int b, const char* to) noexcept, (a, from, b, to),
            Faulty::renamed(a, from, b, to))
FAULTY_CALL(int, link, "link", (const char* from, const char* to) noexcept,
            (Faulty::armed && Faulty::kind == Faulty::cut_without_links ? "/dev/null" : from, to),
            Faulty::changed_folder(AT_FDCWD, to))
FAULTY_CALL(int, unlink, "unlink", (const char* path) noexcept, (path), )
FAULTY_CALL(int, unlinkat, "unlinkat", (int folder, const char* path, int flags) noexcept, (folder, path, flags),
            Faulty::changed_folder(folder, path))

/// What failed is tried again at once.
FAULTY_FUNCTION int nanosleep(const timespec* duration, timespec* left) {
    return Faulty::armed ? 0 : clock_nanosleep(CLOCK_REALTIME, 0, duration, left);
}

// The mode, which only those give who create, is handed on in any case.
#ifdef __USE_FILE_OFFSET64
#define FAULTY_LARGE "64"
#else
#define FAULTY_LARGE
#endif
FAULTY_FUNCTION int faulty_openat(int folder, const char* path, int flags, mode_t mode) __asm__("openat" FAULTY_LARGE);
FAULTY_FUNCTION int faulty_open(const char* path, int flags, mode_t mode) __asm__("open" FAULTY_LARGE);
FAULTY_CALL(int, faulty_openat, "openat64", (int folder, const char* path, int flags, mode_t mode),
            (folder, path, flags, mode), )
int faulty_open(const char* path, int flags, mode_t mode) { return faulty_openat(AT_FDCWD, path, flags, mode); }
