// SPDX-License-Identifier: MIT
// Processes save whatever a machine saves, in turns, on real file systems that are stopped at a random moment, get
// full, read-only or fail. The safe stores then hold the state of before or after the last completed save, and the work
// goes on; what the plain ones, which promise nothing, hold after a cut is counted.
#include "kernel/Media.h"
#include "kernel/Saved_stores.h"
#include <regex>
#include <sys/statvfs.h>

namespace {

/// Those of the medium, as a program that has just started has them: the safe ones first. Empty: they are not there.
std::vector<std::unique_ptr<Saved::Store>> open_stores(size_t n) {
    std::vector<std::unique_ptr<Saved::Store>> all;
    for (size_t i = 0; i < n && (i || Saved::mount(Media::folder)); ++i)
        all.push_back(Saved::kinds[i].open(Media::folder));
    return all;
}

/// What the processes of a test tell each other.
struct Progress {
    struct One : Saved::Account {
        int kept, bad; ///< cuts in the middle of a save after which its version was there; bad states
        bool lost;     ///< no version was there, and none was saved since
    } stores[Saved::num_stores];
    int violations;
    std::atomic<int> saves, judged;
    std::atomic<bool> cut;
};

class Power_cut : public testing::Test {
protected:
    Power_cut() { Debug_print::set_debug_file("/dev/null"); } // thousands of refusals
    void TearDown() override {
        printf(
            "%d cases of power cuts in %d saves, %d violations; %d of them around a mount, %d before the first save\n",
            cuts, p->saves.load(), p->violations, in_mount, in_recovery);
        for (size_t i = 0; i < Saved::num_stores; ++i)
            printf("  %-22s the cut save was there after all %4d times, a bad state %4d times\n", Saved::kinds[i].name,
                   p->stores[i].kept, p->stores[i].bad);
        EXPECT_EQ(p->violations, 0);
    }

    /// As a process that has just started: judge what the one before left, then save in turns until that fails.
    int judge_and_save(int saves, const std::function<bool()>& is_cut) {
        const auto stores = open_stores(Saved::num_stores);
        if (stores.empty()) return is_cut() ? 1 : 2;
        Saved::Account found[Saved::num_stores];
        bool good[Saved::num_stores];
        for (size_t i = 0; i < stores.size(); ++i) found[i] = p->stores[i], good[i] = found[i].settle(*stores[i]);
        if (is_cut()) return 1; // the next one judges
        for (size_t i = 0; i < stores.size(); ++i) {
            Progress::One& one = p->stores[i];
            one.kept += found[i].done != one.done;
            if (!good[i] && !std::exchange(one.lost, true)) {
                ++one.bad;
                if (i < Saved::num_safe && ++p->violations <= 5)
                    fprintf(stderr, "%s: neither version %d nor %d is there, but %s\n", Saved::kinds[i].name, one.done,
                            one.begun, stores[i]->found().c_str());
            }
            static_cast<Saved::Account&>(one) = found[i];
        }
        ++p->judged;
        for (int n = p->judged; saves-- > 0; ++n) {
            const size_t i = static_cast<size_t>(n) % stores.size();
            Progress::One& one = p->stores[i];
            one.begun = one.done + 1;
            const bool saved = stores[i]->save(one.begun);
            // What comes back after the cut nobody has seen: a sync may then say that all is well and mean nothing.
            if (is_cut()) return 1;
            if (!saved) return 3;
            one.done = one.begun;
            one.lost = false;
            ++p->saves;
        }
        return 0;
    }
    /// Wait until a child has got so far; not for ever, it may have ended.
    static void wait_for(const std::atomic<int>& counter, int value) {
        wait_until([&] { return counter >= value; }, std::chrono::minutes(3));
    }

    const Shared<Progress> p;
    Random random{20261122};
    int cuts = 0, in_mount = 0, in_recovery = 0;
};

TEST_F(Power_cut, of_ext4) {
    Media::Ext4 medium;
    for (; cuts < Guest::rounds(1000) && !HasFailure(); ++cuts) {
        ASSERT_TRUE(medium.mount());
        p->cut = false;
        const int judged = p->judged, saves = p->saves;
        const auto cut = [&](pid_t) {
            if (cuts % 8 == 5) { // while it opens the stores, or soon after
                usleep(random(20000));
            } else {
                wait_for(p->judged, judged + 1);
                wait_for(p->saves, saves + random(5));
                usleep(random(2000));
            }
            p->cut = true;
            medium.cut();
        };
        const int end = in_child([&] { return judge_and_save(1000, [&] { return p->cut.load(); }); }, cut);
        ASSERT_EQ(end, 1) << "a save fails if and only if the file system was stopped";
        in_recovery += p->judged == judged;
        medium.unmount();
        if (cuts % 8 != 3) continue;
        ++cuts, ++in_mount; // and again, while the file system recovers
        const auto mount_late = [&] { return usleep(random(50000)) || !medium.mount(); };
        in_child(mount_late, [&](pid_t) { medium.drop_writes(true); });
        medium.unmount();
        medium.drop_writes(false);
    }
}

TEST_F(Power_cut, of_ubifs) {
    Media::Ubifs medium;
    while (cuts < Guest::rounds(500) && !HasFailure()) {
        const bool early = random(4) == 0; // in the mount, in its recovery, or while the stores are opened
        if (early) medium.arm(1 + random(6));
        const bool mounted = medium.mount();
        EXPECT_TRUE(mounted || medium.is_cut());
        in_mount += !mounted;
        if (mounted) {
            if (!early) medium.arm(1 + random(40) * random(40) * random(40) / 1600); // mostly soon
            const int judged = p->judged;
            const int end = in_child([&] { return judge_and_save(1000, medium.is_cut); });
            EXPECT_EQ(end, medium.is_cut() ? 1 : 0) << "a save fails if and only if there was a cut";
            in_recovery += p->judged == judged;
            medium.unmount();
        }
        cuts += medium.is_cut();
        medium.detach();
        medium.attach();
    }
    ASSERT_TRUE(medium.mount());
    EXPECT_EQ(in_child([&] { return judge_and_save(7, [] { return false; }); }), 0);
}

/// Files that take all the room but some.
class Filler {
public:
    Filler() {
        mkdir((Media::folder + "/filler").c_str(), 0700); // else they count as files of the flash store
        while (add(64 << 10)) ++_large;
        for (int n = 5; n > 0; --n, --_large) remove();
    }
    void leave(int kib) {
        while (add(1 << 10) || (sync(), add(1 << 10))) { // a sync may show that there is more
        }
        for (; kib > 0; --kib) remove();
        sync();
    }
    void make_room() {
        while (_files > _large) remove();
    }

private:
    std::string last() const { return Media::folder + "/filler/" + std::to_string(_files); }
    bool add(unsigned size) {
        const std::string noise = _random.bytes(size); // else UBIFS makes less of it
        ++_files;
        const int fd = open(last().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const bool all = write(fd, noise.data(), size) == static_cast<ssize_t>(size);
        if (fd >= 0) close(fd);
        if (!all) remove();
        return all;
    }
    void remove() { unlink(last().c_str()), --_files; }

    int _files = 0, _large = 0;
    Random _random{1};
};

/// What becomes of a process when the medium gets into trouble and comes back: a result and one clear line, the old
/// state stays, and the same process goes on.
class Media_trouble : public testing::Test {
protected:
    /// Whether a save succeeds; what it says must fit.
    bool save(size_t i) {
        bool saved = false;
        accounts[i].begun = accounts[i].done + 1;
        const std::string text = debug_text([&] { saved = stores[i]->save(accounts[i].begun); });
        ++saves, failures += !saved;
        const char* const name = Saved::kinds[i].name;
        // The others have a result, and leave it to the program to say it.
        const bool says = !saved && (i == Saved::settings || i == Saved::faults);
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), says) << name << ": " << text;
        if (says && i == Saved::settings) {
            const std::string line = "NV_safe_store " + Media::folder + "/settings: (" + results + "): .+\n";
            EXPECT_TRUE(std::regex_match(text, std::regex(line))) << text;
        }
        if (saved) accounts[i].done = accounts[i].begun;
        return saved;
    }
    void save_all() {
        for (size_t i = 0; i < stores.size(); ++i) EXPECT_TRUE(save(i)) << Saved::kinds[i].name;
    }
    void check(const char* when, bool or_next = false) {
        for (size_t i = 0; i < stores.size(); ++i) {
            const auto fresh = Saved::kinds[i].open(Media::folder);
            Saved::Account& a = accounts[i];
            if (!or_next) a.begun = a.done;
            const int before = a.done;
            EXPECT_TRUE(a.settle(*fresh))
                << Saved::kinds[i].name << " " << when << ": not version " << a.done << ", but " << fresh->found();
            kept += a.done - before;
        }
    }
    /// `sudden`: in the middle of a save; else before it, and it is certain what fails. `lines`: what the settings say.
    void suffer(const char* name, int rounds, bool sudden, const char* lines, const std::function<void(int)>& begin,
                const std::function<void()>& end) {
        results = lines;
        saves = failures = kept = 0;
        for (int round = 0; round < rounds && !HasFailure(); ++round) {
            SCOPED_TRACE(texts(name, round));
            std::atomic<bool> begun{false};
            std::thread other([&, delay = random(30000)] {
                if (sudden) usleep(delay);
                begin(round);
                begun = true;
            });
            if (!sudden) other.join();
            for (int after = 0; after < 3; after += begun)
                for (size_t i = 0; i < stores.size(); ++i) save(i);
            sudden ? other.join() : check("in trouble");
            end();
            check("when it is back", sudden);
            save_all();
            check("after the next save");
        }
        printf("%s: %d saves, %d failed, %d of them there afterwards\n", name, saves, failures, kept);
        EXPECT_GT(failures, 0);
    }
    void suffer_all(Media::Medium& medium) {
        ASSERT_TRUE(medium.mount());
        stores = open_stores(Saved::num_safe);
        save_all();
        Filler filler;
        const auto fill = [&](int kib) { filler.leave(kib); };
        suffer("full", 16, false, "disk full", fill, [&] { filler.make_room(); });
        const auto remount = [](unsigned long flags) {
            return mount(nullptr, Media::folder.c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0;
        };
        const auto make_read_only = [&](int) {
            while (!remount(MS_RDONLY)) usleep(100); // while a file is open for writing it is refused
        };
        suffer("read-only", 10, true, "read-only", make_read_only, [&] { EXPECT_TRUE(remount(0)); });
        if (auto* const ubifs = dynamic_cast<Media::Ubifs*>(&medium)) {
            const auto fail = [&](int round) {
                ubifs->arm(1 + round);
                while (!ubifs->is_cut()) usleep(1000);
            };
            const auto come_back = [&] {
                Pcf_host::unmount();
                medium.unmount();
                ubifs->detach();
                ubifs->attach();
                ASSERT_TRUE(medium.mount() && Saved::mount(Media::folder));
            };
            suffer("it fails after so many writes", 20, true, "failed|read-only", fail, come_back);
        }
        stores.clear(), Pcf_host::unmount(); // nothing may be open below the medium when it goes
    }

    std::vector<std::unique_ptr<Saved::Store>> stores;
    Saved::Account accounts[Saved::num_safe];
    int saves = 0, failures = 0, kept = 0;
    std::string results;
    Random random{20261122};
};

TEST_F(Media_trouble, of_ext4) {
    Media::Ext4 medium(4);
    suffer_all(medium);
}

TEST_F(Media_trouble, of_ubifs) {
    Media::Ubifs medium;
    suffer_all(medium);
}

} // namespace
