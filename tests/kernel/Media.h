// SPDX-License-Identifier: MIT
#pragma once
#include "kernel/Guest.h"
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <linux/fs.h>
#include <mtd/ubi-user.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

/// Real file systems on simulated media, mounted at `folder`.
namespace Media {

const std::string folder = "/mnt/medium";

/// Run `body` in a child, as a process that has just started: its exit status, -1 when a signal ended it.
inline int in_child(const std::function<int()>& body, const std::function<void()>& meanwhile = nullptr) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(600);
        _exit(body());
    }
    if (meanwhile) meanwhile();
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// ext4 on a disk in memory, with a layer between that can be made to lose what is written.
class Ext4 {
public:
    explicit Ext4(int mib = 16) {
        mkdir(folder.c_str(), 0755);
        Guest::must("modprobe ext4 && modprobe dm-flakey");
        Guest::must("modprobe brd rd_nr=1 rd_size=" + std::to_string(mib * 1024));
        _sectors = std::to_string(mib * 2048);
        Guest::must("dmsetup create medium --table '" + good() + "'");
        Guest::must("/usr/sbin/mke2fs -q -F -t ext4 -b 1024 -m 0 -J size=1 /dev/dm-0");
    }
    ~Ext4() {
        unmount();
        Guest::sh("dmsetup remove medium; rmmod brd");
    }
    bool mount() { return ::mount("/dev/dm-0", folder.c_str(), "ext4", 0, "") == 0; }
    void unmount() { umount2(folder.c_str(), 0); }
    /// Stop the file system at once: nothing more reaches the disk, not even the journal.
    void cut() {
        constexpr unsigned no_log_flush = 2;
        const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        unsigned flags = no_log_flush;
        EXPECT_EQ(ioctl(fd, _IOR('X', 125, unsigned), &flags), 0);
        close(fd);
    }
    std::string good() const { return "0 " + _sectors + " linear /dev/ram0 0"; }
    /// From now on the layer drops all that is written, fails it, or fails reads too.
    std::string dropping() const { return "0 " + _sectors + " flakey /dev/ram0 0 0 60 1 drop_writes"; }
    std::string failing_writes() const { return "0 " + _sectors + " flakey /dev/ram0 0 0 60 1 error_writes"; }
    std::string dead() const { return "0 " + _sectors + " error"; }
    static void replace_layer(const std::string& table) {
        Guest::must("dmsetup load medium --table '" + table + "' && dmsetup resume --nolockfs --noflush medium");
    }

private:
    std::string _sectors;
};

/// UBIFS on 3 MiB of a simulated NAND: what is small is scanned soon, and its blocks are used again.
class Ubifs {
public:
    Ubifs() {
        mkdir(folder.c_str(), 0755);
        Guest::must("modprobe nandsim first_id_byte=0x20 second_id_byte=0x33 parts=192");
        Guest::must("modprobe ubi && modprobe ubifs");
        attach();
        ubi_mkvol_req volume = {};
        volume.vol_id = UBI_VOL_NUM_AUTO;
        volume.alignment = 1;
        volume.bytes = 2 << 20;
        volume.vol_type = UBI_DYNAMIC_VOLUME;
        volume.name_len = 1;
        volume.name[0] = 's';
        control("/dev/ubi0", UBI_IOCMKVOL, &volume);
    }
    ~Ubifs() {
        unmount();
        detach();
        Guest::sh("rmmod ubifs; rmmod ubi; rmmod nandsim");
    }
    bool mount() { return ::mount("ubi0:s", folder.c_str(), "ubifs", 0, "") == 0; }
    void unmount() { umount2(folder.c_str(), 0); }
    void attach() {
        ubi_attach_req first = {};
        control("/dev/ubi_ctrl", UBI_IOCATT, &first);
    }
    void detach() {
        int32_t first = 0;
        control("/dev/ubi_ctrl", UBI_IOCDET, &first);
    }
    /// The power goes after so many writes of headers of blocks.
    void arm(int writes) {
        set("tst_emulate_power_cut_min", writes);
        set("tst_emulate_power_cut_max", writes + 1);
        set("tst_emulate_power_cut", 3);
    }
    bool is_cut() const { return read_file("/sys/class/ubi/ubi0/ro_mode") == "1\n"; }

private:
    static void set(const char* what, int value) {
        write_file(std::string("/sys/kernel/debug/ubi/ubi0/") + what, std::to_string(value));
    }
    static void control(const char* device, unsigned long request, void* what) {
        const int fd = open(device, O_RDWR | O_CLOEXEC);
        ASSERT_EQ(ioctl(fd, request, what), 0) << device << ": " << strerror(errno);
        close(fd);
    }
};

} // namespace Media
