// SPDX-License-Identifier: MIT
// A medium that gets full, read-only, fails or dies under a process that saves whatever a machine saves, and comes
// back: a result and one clear line, the old state stays, and the same process goes on.
#include "kernel/Media.h"
#include "kernel/Saved_stores.h"
#include "support/capture.h"
#include <algorithm>
#include <random>
#include <regex>
#include <sys/statvfs.h>
#include <thread>
#include <utility>

namespace {

struct Trouble {
    const char* name;
    int rounds;
    bool sudden; ///< in the middle of a save; else before it, and the results are certain
    const char* results;
    std::function<void(int round)> begin;
    std::function<void()> end;
};

/// Files that take all the room but some.
class Filler {
public:
    void leave(int kib) {
        if (!std::exchange(_begun, true)) {
            mkdir((Media::folder + "/filler").c_str(), 0700); // else they count as files of the flash store
            struct statvfs s;
            statvfs(Media::folder.c_str(), &s);
            while (s.f_bavail * s.f_bsize > 300 << 10 && add(64 << 10)) statvfs(Media::folder.c_str(), &s);
        }
        while (add(1 << 10)) ++_small;
        for (; kib > 0; --kib) remove();
        sync();
    }
    void make_room() {
        while (_small > 0) remove();
    }

private:
    static std::string path(int n) { return Media::folder + "/filler/" + std::to_string(n); }
    bool add(size_t size) {
        std::string noise(size, '\0');
        for (auto& c : noise) c = static_cast<char>(_random() >> 8); // else UBIFS makes less of it
        const int fd = open(path(_files).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const bool all = write(fd, noise.data(), size) == static_cast<ssize_t>(size);
        if (fd >= 0) close(fd);
        all ? ++_files : unlink(path(_files).c_str());
        return all;
    }
    void remove() { unlink(path(--_files).c_str()), --_small; }

    bool _begun = false;
    int _files = 0, _small = 0;
    std::minstd_rand _random{1};
};

class Media_trouble : public testing::Test {
protected:
    static std::unique_ptr<Saved::Store> fresh(size_t i) {
        switch (i) {
        case 0:
            return std::make_unique<Saved::Settings>(Media::folder);
        case 1:
            return std::make_unique<Saved::Safe_text>(Media::folder);
        case 2:
            return std::make_unique<Saved::Flash_file>();
        default:
            return std::make_unique<Saved::Faults>();
        }
    }
    /// Whether a save succeeds; what it says must fit.
    bool save(size_t i, int round) {
        bool saved = false;
        const std::string text = debug_text([&] { saved = _stores[i]->save(_done[i] + 1); });
        ++_saves, _failures += !saved;
        // The others have a result, and leave it to the program to say it.
        const bool says = !saved && (i == 0 || i == 3);
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), says)
            << _stores[i]->name << ", " << round << ": " << text;
        if (says && i == 0) {
            const std::string line = "NV_safe_store " + Media::folder + "/settings: (" + _trouble->results + "): .+\n";
            EXPECT_TRUE(std::regex_match(text, std::regex(line))) << text;
        }
        _done[i] += saved;
        return saved;
    }
    void check(const char* when, bool or_next) {
        for (size_t i = 0; i < Saved::num_safe; ++i) {
            const auto store = fresh(i);
            if (or_next && store->holds(_done[i] + 1)) ++_done[i], ++_kept;
            EXPECT_TRUE(store->holds(_done[i]))
                << store->name << " " << when << ": not version " << _done[i] << ", but " << store->found();
        }
    }
    void suffer(const Trouble& t) {
        SCOPED_TRACE(t.name);
        _trouble = &t;
        for (int round = 0; round < t.rounds && !HasFailure(); ++round) {
            SCOPED_TRACE(round);

            std::atomic<bool> begun{false};
            std::thread other([&, delay = _random() % 30000] {
                if (t.sudden) usleep(static_cast<unsigned>(delay));
                t.begin(round);
                begun = true;
            });
            if (!t.sudden) other.join();
            for (int after = 0; after < 3; after += begun)
                for (size_t i = 0; i < Saved::num_safe; ++i) save(i, round);
            if (t.sudden) other.join();
            if (!t.sudden) check("in trouble", false);
            t.end();
            check("when it is back", t.sudden);
            for (size_t i = 0; i < Saved::num_safe; ++i) EXPECT_TRUE(save(i, round)) << _stores[i]->name;
            check("after the next save", false);
        }
        printf("%s: %d saves, %d failed, %d of them there afterwards\n", t.name, _saves, _failures, _kept);
        EXPECT_GT(_failures, 0);
        _saves = _failures = _kept = 0;
    }
    void open_stores() {
        _stores = Saved::open_all(Media::folder);
        ASSERT_TRUE(_stores[0]);
        for (size_t i = 0; i < Saved::num_safe; ++i) ASSERT_TRUE(save(i, 0)) << _stores[i]->name;
    }
    /// Full and read-only: the same on each file system.
    void suffer_full_and_read_only() {
        Filler filler;
        const auto remount = [](unsigned long flags) {
            return mount(nullptr, Media::folder.c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0;
        };
        suffer({"full", 16, false, "disk full", [&](int kib) { filler.leave(kib); }, [&] { filler.make_room(); }});
        const auto make_read_only = [&](int) {
            while (!remount(MS_RDONLY)) usleep(100); // while a file is open for writing it is refused
        };
        suffer({"read-only", 10, true, "read-only", make_read_only, [&] { EXPECT_TRUE(remount(0)); }});
    }
    /// Nothing may be open below the medium when it goes.
    void close_stores() { _stores = {}, Pcf_host::unmount(); }

    Saved::Stores _stores;
    int _done[Saved::num_safe] = {}, _saves = 0, _failures = 0, _kept = 0;
    const Trouble* _trouble = nullptr;
    std::minstd_rand _random{20261122};
};

TEST_F(Media_trouble, of_ext4) {
    Media::Ext4 medium(4);
    ASSERT_TRUE(medium.mount());
    open_stores();
    suffer_full_and_read_only();
    close_stores();
}

TEST_F(Media_trouble, of_ubifs) {
    Media::Ubifs medium;
    ASSERT_TRUE(medium.mount());
    open_stores();
    suffer_full_and_read_only();
    suffer({"it fails after so many writes", 20, true, "failed|read-only",
            [&](int round) {
                medium.arm(1 + round);
                while (!medium.is_cut()) usleep(1000);
            },
            [&] {
                Pcf_host::unmount();
                medium.unmount();
                medium.detach();
                medium.attach();
                ASSERT_TRUE(medium.mount());
                ASSERT_TRUE(Pcf_host::mount(Media::folder.c_str(), 1000000));
            }});
    close_stores();
}

} // namespace
