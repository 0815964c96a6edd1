// SPDX-License-Identifier: MIT
#pragma once
#include "kernel/Guest.h"
#include <linux/fs.h>
#include <mtd/ubi-user.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

/// Real file systems on simulated media, mounted at `folder`.
namespace Media {

const std::string folder = "/mnt/medium";

inline void control(const char* file, int flags, unsigned long request, void* what) {
    const int fd = open(file, flags | O_CLOEXEC);
    EXPECT_EQ(ioctl(fd, request, what), 0) << file << ": " << strerror(errno);
    close(fd);
}

struct Medium {
    Medium() { mkdir(folder.c_str(), 0755); }
    virtual ~Medium() = default;
    virtual bool mount() = 0;
    static void unmount() { umount2(folder.c_str(), 0); }
};

/// ext4 on a disk in memory, with a layer between that can be made to lose what is written.
struct Ext4 : Medium {
    explicit Ext4(int mib = 16) : sectors(std::to_string(mib * 2048)) {
        Guest::must("modprobe ext4 && modprobe dm-flakey");
        Guest::must("modprobe brd rd_nr=1 rd_size=" + std::to_string(mib * 1024));
        Guest::must("dmsetup create medium --table '0 " + sectors + " linear /dev/ram0 0'");
        Guest::must("/usr/sbin/mke2fs -q -F -t ext4 -b 1024 -m 0 -J size=1 /dev/dm-0");
    }
    ~Ext4() override {
        unmount();
        Guest::sh("dmsetup remove medium; rmmod brd");
    }
    bool mount() override { return ::mount("/dev/dm-0", folder.c_str(), "ext4", 0, "") == 0; }
    /// Stop the file system at once: nothing more reaches the disk, not even the journal.
    static void cut() {
        unsigned no_log_flush = 2;
        control(folder.c_str(), O_RDONLY | O_DIRECTORY, _IOR('X', 125, unsigned), &no_log_flush);
    }
    /// From now on the layer drops all that is written, or no more.
    void drop_writes(bool on) const {
        const std::string layer = on ? " flakey /dev/ram0 0 0 60 1 drop_writes" : " linear /dev/ram0 0";
        Guest::must("dmsetup load medium --table '0 " + sectors + layer +
                    "' && dmsetup resume --nolockfs --noflush medium");
    }
    const std::string sectors;
};

/// UBIFS on 3 MiB of a simulated NAND: what is small is scanned soon, and its blocks are used again.
struct Ubifs : Medium {
    Ubifs() {
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
        control("/dev/ubi0", O_RDWR, UBI_IOCMKVOL, &volume);
    }
    ~Ubifs() override {
        unmount();
        detach();
        Guest::sh("rmmod ubifs; rmmod ubi; rmmod nandsim");
    }
    bool mount() override { return ::mount("ubi0:s", folder.c_str(), "ubifs", 0, "") == 0; }
    static void attach() {
        ubi_attach_req first = {};
        control("/dev/ubi_ctrl", O_RDWR, UBI_IOCATT, &first);
    }
    static void detach() {
        int32_t first = 0;
        control("/dev/ubi_ctrl", O_RDWR, UBI_IOCDET, &first);
    }
    /// The power goes after so many writes of headers of blocks.
    static void arm(int writes) {
        const std::string emulate = "/sys/kernel/debug/ubi/ubi0/tst_emulate_power_cut";
        write_file(emulate + "_min", std::to_string(writes));
        write_file(emulate + "_max", std::to_string(writes + 1));
        write_file(emulate, "3");
    }
    static bool is_cut() { return read_file("/sys/class/ubi/ubi0/ro_mode") == "1\n"; }
};

} // namespace Media
