// SPDX-License-Identifier: MIT
#pragma once
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

/// Stands in for the system calls that change files, in a program that includes this once: the nth of them ends the
/// process or fails, and what is renamed or left without having been synced is noted. Nothing is really synced, which
/// keeps thousands of cases quick: a process that ends loses no pages.
namespace Faulty {

enum Kind { none, cut_before, cut_after, error_once, error_for_ever };
constexpr int cut_status = 99;

inline Kind kind = none;
inline int nth = 0;   ///< which call, from 1 on
inline int calls = 0; ///< counted since arm()
inline int error = 0; ///< errno of a failing call
inline bool armed = false;

inline std::set<ino_t> unsynced; ///< files and folders with changes that no sync followed
inline std::string hasty;        ///< what was renamed before its content was synced

inline void arm(Kind k, int which, int reason = 0) {
    kind = k;
    nth = which;
    error = reason;
    calls = 0;
    unsynced.clear();
    hasty.clear();
    armed = true;
}

template <class Real>
auto call(Real real) -> decltype(real()) {
    if (!armed) return real();
    ++calls;
    const bool due = calls == nth;
    if (due && kind == cut_before) _exit(cut_status);
    if ((due && kind == error_once) || (calls >= nth && kind == error_for_ever)) {
        errno = error;
        return -1;
    }
    const auto result = real();
    if (due && kind == cut_after) _exit(cut_status);
    return result;
}

inline ino_t inode(int folder, const char* path) {
    struct stat s;
    return fstatat(folder, path, &s, AT_SYMLINK_NOFOLLOW) == 0 ? s.st_ino : 0;
}

inline ino_t inode(int fd) {
    struct stat s;
    return fstat(fd, &s) == 0 ? s.st_ino : 0;
}

inline void changed_folder(int folder, const char* path) {
    const std::string p = path;
    const size_t slash = p.rfind('/');
    unsynced.insert(slash == std::string::npos && folder != AT_FDCWD ? inode(folder)
                                                                     : inode(AT_FDCWD, p.substr(0, slash + 1).c_str()));
}

inline int renamed(int from_folder, const char* from, int to_folder, const char* to,
                   int (*real)(int, const char*, int, const char*)) {
    if (armed && unsynced.count(inode(from_folder, from))) hasty = from;
    if (armed) changed_folder(to_folder, to);
    return call([=] { return real(from_folder, from, to_folder, to); });
}

inline int really_rename(int a, const char* from, int b, const char* to) {
    static const auto real =
        reinterpret_cast<int (*)(int, const char*, int, const char*)>(dlsym(RTLD_NEXT, "renameat"));
    return real(a, from, b, to);
}

} // namespace Faulty

#define FAULTY_CALL extern "C" __attribute__((visibility("default")))
// A call that has to do with file sizes has the name of its 64-bit form where the machine's word is shorter.
#define FAULTY_REAL(name) static const auto real = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name))
#define FAULTY_REAL_64(name) static const auto real = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name "64"))

FAULTY_CALL ssize_t write(int fd, const void* data, size_t n) {
    FAULTY_REAL(write);
    if (Faulty::armed) Faulty::unsynced.insert(Faulty::inode(fd));
    return Faulty::call([=] { return real(fd, data, n); });
}

FAULTY_CALL ssize_t pwrite(int fd, const void* data, size_t n, off_t at) {
    FAULTY_REAL_64(pwrite);
    if (Faulty::armed) Faulty::unsynced.insert(Faulty::inode(fd));
    return Faulty::call([=] { return real(fd, data, n, at); });
}

FAULTY_CALL int ftruncate(int fd, off_t size) noexcept {
    FAULTY_REAL_64(ftruncate);
    if (Faulty::armed) Faulty::unsynced.insert(Faulty::inode(fd));
    return Faulty::call([=] { return real(fd, size); });
}

FAULTY_CALL int fsync(int fd) {
    return Faulty::call([=] {
        Faulty::unsynced.erase(Faulty::inode(fd));
        return 0;
    });
}

FAULTY_CALL int rename(const char* from, const char* to) noexcept {
    return Faulty::renamed(AT_FDCWD, from, AT_FDCWD, to, Faulty::really_rename);
}

FAULTY_CALL int renameat(int a, const char* from, int b, const char* to) noexcept {
    return Faulty::renamed(a, from, b, to, Faulty::really_rename);
}

FAULTY_CALL int link(const char* from, const char* to) noexcept {
    FAULTY_REAL(link);
    if (Faulty::armed) Faulty::changed_folder(AT_FDCWD, to);
    return Faulty::call([=] { return real(from, to); });
}

FAULTY_CALL int unlink(const char* path) noexcept {
    FAULTY_REAL(unlink);
    return Faulty::call([=] { return real(path); });
}

FAULTY_CALL int unlinkat(int folder, const char* path, int flags) noexcept {
    FAULTY_REAL(unlinkat);
    if (Faulty::armed) Faulty::changed_folder(folder, path);
    return Faulty::call([=] { return real(folder, path, flags); });
}

FAULTY_CALL int open(const char* path, int flags, ...) {
    FAULTY_REAL_64(open);
    va_list args;
    va_start(args, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(args, mode_t) : 0;
    va_end(args);
    return Faulty::call([=] { return real(path, flags, mode); });
}

FAULTY_CALL int openat(int folder, const char* path, int flags, ...) {
    FAULTY_REAL_64(openat);
    va_list args;
    va_start(args, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(args, mode_t) : 0;
    va_end(args);
    return Faulty::call([=] { return real(folder, path, flags, mode); });
}
