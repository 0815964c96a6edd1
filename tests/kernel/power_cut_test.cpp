// SPDX-License-Identifier: MIT
// A process saves whatever a machine saves, in turns, until its file system is stopped at a random moment; then a fresh
// process judges. The safe stores must hold the state of before or after the last completed save; what the plain ones,
// which promise nothing, hold is counted. With --nightly 10,000 cuts on ext4 and 5,000 on UBIFS, with
// --few an eighth of those of the ordinary run.
#include "kernel/Media.h"
#include "kernel/Saved_stores.h"
#include "util/Debug_print.h"
#include <random>
#include <sys/mman.h>

namespace {

int ext4_cuts = 1000, ubifs_cuts = 500;

/// What the processes of a test tell each other.
struct Progress {
    struct One {
        std::atomic<int> done, begun; ///< versions
        std::atomic<int> kept, bad;   ///< cuts in the middle of a save after which its version was there; bad states
        std::atomic<bool> lost;       ///< no version was there, and none was saved since
    } stores[Saved::num_stores];
    std::atomic<int> violations, saves, judged;
};

class Power_cut : public testing::Test {
protected:
    Power_cut() {
        void* const memory = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        _p = new (memory) Progress();
    }
    ~Power_cut() override { munmap(_p, sizeof *_p); }

    int random(int n) { return static_cast<int>(_random() % static_cast<unsigned>(n)); }

    /// As a process that has just started: judge what the one before left, then save in turns until that fails.
    int judge_and_save(int saves, const std::function<bool()>& is_cut) {
        Saved::Stores stores = Saved::open_all(Media::folder);
        if (!stores[0]) return is_cut() ? 1 : 2;
        bool old_there[Saved::num_stores], new_there[Saved::num_stores];
        for (size_t i = 0; i < stores.size(); ++i) {
            const Progress::One& one = _p->stores[i];
            old_there[i] = stores[i]->holds(one.done);
            new_there[i] = one.begun != one.done && stores[i]->holds(one.begun);
        }
        if (is_cut()) return 1; // the next one judges
        for (size_t i = 0; i < stores.size(); ++i) enter(i, *stores[i], old_there[i], new_there[i]);
        ++_p->judged;
        for (int n = _p->judged; saves-- > 0; ++n) {
            const size_t i = static_cast<size_t>(n) % stores.size();
            Progress::One& one = _p->stores[i];
            one.begun = one.done + 1;
            const bool saved = stores[i]->save(one.begun);
            // What comes back after the cut nobody has seen: a sync may then say that all is well and mean nothing.
            if (is_cut()) return 1;
            if (!saved) return 3;
            ++one.done;
            one.lost = false;
            ++_p->saves;
        }
        return 0;
    }
    void enter(size_t i, Saved::Store& store, bool old_there, bool new_there) {
        Progress::One& one = _p->stores[i];
        one.kept += new_there;
        if (!old_there && !new_there && !one.lost.exchange(true)) {
            ++one.bad;
            if (i < Saved::num_safe && ++_p->violations <= 5)
                fprintf(stderr, "%s: neither version %d nor %d is there, but %s\n", store.name, int(one.done),
                        int(one.begun), store.found().c_str());
        }
        if (new_there) one.done = int(one.begun);
        one.begun = int(one.done);
    }
    /// Wait until a child has got so far; not for ever, it may have ended.
    static void wait_for(const std::atomic<int>& counter, int value) {
        for (int i = 0; counter < value && i < 200000; ++i) usleep(1000);
    }
    void report(const char* medium, int cuts) {
        printf("%s: %d cases of power cuts in %d saves, %d violations\n", medium, cuts, int(_p->saves),
               int(_p->violations));
        const char* const names[] = {"settings",   "checksummed file",     "flash store",      "fault history",
                                     "plain file", "checksummed in place", "settings in place"};
        for (size_t i = 0; i < Saved::num_stores; ++i)
            printf("  %-22s the cut save was there after all %4d times, a bad state %4d times\n", names[i],
                   int(_p->stores[i].kept), int(_p->stores[i].bad));
        EXPECT_EQ(_p->violations, 0);
    }

    Progress* _p;
    std::minstd_rand _random{20261122};
};

TEST_F(Power_cut, of_ext4) {
    Media::Ext4 medium;
    std::atomic<bool>& cut =
        *new (mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) std::atomic<bool>;
    int in_mount = 0, failed_mounts = 0, in_recovery = 0, cuts = 0;
    for (; cuts < ext4_cuts && !HasFailure(); ++cuts) {
        ASSERT_TRUE(medium.mount());
        cut = false;
        const int judged = _p->judged, saves = _p->saves;
        const int end = Media::in_child([&] { return judge_and_save(1000, [&] { return cut.load(); }); },
                                        [&] {
                                            if (cuts % 8 == 5) { // while it opens the stores, or soon after
                                                usleep(static_cast<unsigned>(random(20000)));
                                            } else {
                                                wait_for(_p->judged, judged + 1);
                                                wait_for(_p->saves, saves + random(5));
                                                usleep(static_cast<unsigned>(random(2000)));
                                            }
                                            cut = true;
                                            medium.cut();
                                        });
        ASSERT_EQ(end, 1) << "a save fails if and only if the file system was stopped";
        in_recovery += _p->judged == judged;
        medium.unmount();
        if (cuts % 8 == 3) { // and again, while the file system recovers
            ++cuts, ++in_mount;
            const int mounted = Media::in_child(
                [&] {
                    usleep(static_cast<unsigned>(random(50000)));
                    return medium.mount() ? 0 : 1;
                },
                [&] { Media::Ext4::replace_layer(medium.dropping()); });
            failed_mounts += mounted != 0;
            medium.unmount();
            Media::Ext4::replace_layer(medium.good());
        }
    }
    report("ext4", cuts);
    printf("  %d of them around a mount (%d of which failed), %d before the first save\n", in_mount, failed_mounts,
           in_recovery);
}

TEST_F(Power_cut, of_ubifs) {
    Media::Ubifs medium;
    int cuts = 0, in_mount = 0, in_recovery = 0;
    while (cuts < ubifs_cuts && !HasFailure()) {
        // One in four in the mount, in its recovery, or while the stores are opened.
        const bool early = random(4) == 0;
        if (early) medium.arm(1 + random(6));
        const bool mounted = medium.mount();
        EXPECT_TRUE(mounted || medium.is_cut());
        if (mounted) {
            if (!early) medium.arm(1 + random(40) * random(40) * random(40) / 1600); // mostly soon
            const int judged = _p->judged;
            const int end = Media::in_child([&] { return judge_and_save(1000, [&] { return medium.is_cut(); }); });
            EXPECT_EQ(end, medium.is_cut() ? 1 : 0) << "a save fails if and only if there was a cut";
            in_recovery += _p->judged == judged;
            medium.unmount();
        } else {
            ++in_mount;
        }
        cuts += medium.is_cut();
        medium.detach();
        medium.attach();
    }
    ASSERT_TRUE(medium.mount());
    EXPECT_EQ(Media::in_child([&] { return judge_and_save(7, [] { return false; }); }), 0);
    report("UBIFS", cuts);
    printf("  %d of them in a mount, %d between a mount and the first save\n", in_mount, in_recovery);
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc > 1 && std::string(argv[1]) == "--nightly") ext4_cuts *= 10, ubifs_cuts *= 10;
    if (argc > 1 && std::string(argv[1]) == "--few") ext4_cuts /= 8, ubifs_cuts /= 8;
    Debug_print::set_debug_file("/dev/null"); // thousands of refusals
    return RUN_ALL_TESTS();
}
