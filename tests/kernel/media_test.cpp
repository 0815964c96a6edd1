// SPDX-License-Identifier: MIT
// Processes save whatever a machine saves, in turns, on real file systems on simulated media that are stopped at a
// random moment: the stores then hold the state of before or after the last completed save. One process goes on when
// its medium was full or read-only.
#include "kernel/Guest.h"
#include "kernel/Saved_stores.h"
#include <sys/ioctl.h>
#include <sys/mount.h>

namespace {

const std::string folder = "/mnt";
constexpr size_t num_stores = std::size(Saved::kinds);
using Accounts = std::array<Saved::Account, num_stores>;

/// A file system, mounted at `folder`.
struct Medium {
    ~Medium() { Guest::sh("(umount " + folder + "; ubidetach -m 0; rmmod ubifs ubi nandsim brd) 2>/dev/null"); }
    bool mount() const { return ::mount(device, folder.c_str(), type, 0, "") == 0; }
    bool is_cut() const { return read_file(cut) == "1\n"; }
    /// Unmounted, and the power is back.
    void end() const { umount2(folder.c_str(), 0), Guest::must(restart); }

    const char *device, *type;
    const char* cut; ///< a file that says 1 when it was
    const char* restart;
};

/// On a disk in memory.
Medium make_ext4() {
    Guest::must("modprobe ext4 && modprobe brd rd_nr=1 rd_size=4096 &&"
                "/usr/sbin/mke2fs -q -F -t ext4 -b 1024 -m 0 -J size=1 /dev/ram0");
    return {"/dev/ram0", "ext4", "/run/cut", "rm -f /run/cut"};
}
/// Nothing more reaches the disk, not even the journal.
void stop_ext4(Random& random) {
    usleep(random(60000));
    write_file("/run/cut", "1\n");
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    unsigned no_log_flush = 2;
    EXPECT_EQ(ioctl(fd, _IOR('X', 125, unsigned), &no_log_flush), 0);
    close(fd);
}

/// On 3 MiB of a simulated NAND: what is small is scanned soon, and its blocks are used again.
Medium make_ubifs() {
    Guest::must("modprobe nandsim first_id_byte=0x20 second_id_byte=0x33 parts=192 && modprobe ubi &&"
                "modprobe ubifs && ubiattach -m 0 && ubimkvol /dev/ubi0 -N s -s 2097152");
    return {"ubi0:s", "ubifs", "/sys/class/ubi/ubi0/ro_mode", "ubidetach -m 0 && ubiattach -m 0 >/dev/null"};
}
/// It stops after so many writes of headers of blocks, mostly soon: in the mount, its recovery, while stores are opened
/// or later.
void arm_ubi(Random& random) {
    const int writes = 1 + random(8) + random(40) * random(40) * random(40) / 1600;
    const std::string emulate = "/sys/kernel/debug/ubi/ubi0/tst_emulate_power_cut";
    write_file(emulate + "_min", std::to_string(writes));
    write_file(emulate + "_max", std::to_string(writes + 1));
    write_file(emulate, "3");
}

void nothing(Random&) {}

/// Those of the medium, as a program that has just started has them.
auto open_stores() {
    std::vector<std::unique_ptr<Saved::Store>> all;
    for (const auto& kind : Saved::kinds) all.push_back(kind.open(folder));
    return all;
}

/// Judge what such a program finds; what is wrong.
std::string settle(Accounts& accounts, const decltype(open_stores())& stores = open_stores()) {
    std::string wrong;
    for (size_t i = 0; i < num_stores; ++i)
        if (!accounts[i].settle(*stores[i]))
            wrong += texts(Saved::kinds[i].name, "holds neither version", accounts[i].done, "nor the next; ");
    return wrong;
}

/// What the processes of a test tell each other.
struct Progress {
    Accounts accounts;
    std::atomic<int> saves, judged;
};

/// As a process that has just started: judge what the one before left, then save in turns until that fails.
int judge_and_save(Progress& p, const Medium& medium) {
    if (!Saved::mount(folder)) return medium.is_cut() ? 1 : 2;
    const auto stores = open_stores();
    Accounts found = p.accounts;
    const std::string wrong = settle(found, stores);
    if (medium.is_cut()) return 1; // the next one judges
    if (!wrong.empty()) return fprintf(stderr, "%s\n", wrong.c_str()), 3;
    p.accounts = found;
    const int first = ++p.judged;
    for (int n = first; n < first + 1000; ++n) {
        const size_t i = static_cast<size_t>(n) % num_stores;
        Saved::Account& a = p.accounts[i];
        a.begun = a.done + 1;
        const bool saved = stores[i]->save(a.begun);
        // What comes back after the cut nobody has seen: a sync may then say that all is well and mean nothing.
        if (medium.is_cut()) return 1;
        if (!saved) return 4;
        a.done = a.begun;
        ++p.saves;
    }
    return 0;
}

/// `arm` and then the medium is mounted; `stop` while a child uses it.
void cut_power(const Medium& medium, int wanted, void arm(Random&), void stop(Random&)) {
    Debug_print::set_debug_file("/dev/null"); // thousands of refusals
    ASSERT_TRUE(medium.mount());              // UBIFS makes itself
    medium.end();
    const Shared<Progress> p;
    Random random{20261122};
    int cuts = 0, in_mount = 0, in_recovery = 0;
    for (; cuts < wanted && !testing::Test::HasFailure(); medium.end()) {
        arm(random);
        if (medium.mount()) {
            const int judged = p->judged;
            const int end = in_child([&] { return judge_and_save(*p, medium); }, [&](pid_t) { stop(random); });
            EXPECT_EQ(end, medium.is_cut()) << "a save fails if and only if there was a cut, and its store is whole";
            in_recovery += p->judged == judged;
        } else {
            ASSERT_TRUE(medium.is_cut()) << "it cannot be mounted any more";
            ++in_mount;
        }
        cuts += medium.is_cut();
    }
    ASSERT_TRUE(medium.mount());
    EXPECT_EQ(in_child([&] { return judge_and_save(*p, medium); }), 0);
    printf("%d cases of power cuts in %d saves; %d of them in a mount, %d before the first save\n", cuts,
           p->saves.load(), in_mount, in_recovery);
}

TEST(Power_cut, of_ext4) { cut_power(make_ext4(), Guest::rounds(1000), nothing, stop_ext4); }
TEST(Power_cut, of_ubifs) { cut_power(make_ubifs(), Guest::rounds(500), arm_ubi, nothing); }

/// A trouble begins between two saves or in one. What was saved before is there, and the process goes on afterwards.
void suffer(const Medium& medium) {
    const std::string go = "cd " + folder + "; ";
    const struct {
        const char *says, *begin, *end;
    } troubles[] = {{"disk full",
                     "mkdir filler; head -c ${kib}k /dev/urandom >filler/first; " // in a folder: no flash file
                     "for i in 1 2; do cat /dev/urandom >filler/$i; sync; done 2>/dev/null; rm filler/first; sync",
                     "rm -r filler; sync"},
                    {"read-only", // which is refused while a file is open for writing
                     "until mount -o remount,ro $PWD; do usleep 100; done 2>/dev/null &",
                     "until grep -q \" $PWD [^ ]* ro\" /proc/mounts; do usleep 100; done; mount -o remount,rw $PWD"}};
    ASSERT_TRUE(medium.mount() && Saved::mount(folder));
    const auto stores = open_stores();
    Accounts accounts;
    int saves = 0;
    for (const auto& t : troubles) {
        int failed = 0;
        const auto save_all = [&] {
            for (size_t i = 0; i < num_stores; ++i, ++saves) {
                Saved::Account& a = accounts[i];
                a.begun = a.done + 1;
                bool saved = false;
                std::string text = debug_text([&] { saved = stores[i]->save(a.begun); });
                if (saved) a.done = a.begun;
                failed += !saved;
                // The others have a result, and leave it to the program to say it.
                const bool is_told = !saved && (i == Saved::settings || i == Saved::faults);
                EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), is_told) << Saved::kinds[i].name << ": " << text;
                const std::string line = "NV_safe_store " + folder + "/settings: " + t.says + ": ";
                EXPECT_TRUE(!is_told || i != Saved::settings || text.rfind(line, 0) == 0) << text;
            }
        };
        for (int kib = 1; kib < 8 && !testing::Test::HasFailure(); ++kib) {
            SCOPED_TRACE(texts(t.says, kib));
            setenv("kib", std::to_string(kib).c_str(), 1);
            const int before = failed;
            save_all();
            EXPECT_VALUES(texts(before, ""), failed, settle(accounts));
            Guest::must(go + t.begin);
            for (int turns = 0; turns < 30 && failed < before + 5; ++turns) save_all();
            EXPECT_EQ(settle(accounts), "");
            Guest::must(go + t.end);
            EXPECT_EQ(settle(accounts), "");
        }
        EXPECT_GT(failed, 0);
    }
    Pcf_host::unmount();
    printf("%s: %d cases of saves\n", medium.type, saves);
}

TEST(Media_trouble, of_ext4) { suffer(make_ext4()); }
TEST(Media_trouble, of_ubifs) { suffer(make_ubifs()); }

} // namespace
