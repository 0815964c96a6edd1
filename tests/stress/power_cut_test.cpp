// SPDX-License-Identifier: MIT
// Whatever a machine saves is saved by a child that is cut off, at its bytes and at every system call, or whose system
// calls fail, or that is killed at a random moment; then a fresh process judges. What is stored is damaged byte by
// byte. Whatever happens, the old version or the new one is there, and the next save works. tests/kernel cuts file
// systems. With --nightly ten rounds with other versions, and 9,000 kills from each of three seeds.
#include "kernel/Saved_stores.h"
#include "stress/faulty_calls.h"
#include "support/stress.h"
#include "support/test.h"
#include <sys/resource.h>

namespace {

// Of so many bytes one is tried. Under a sanitizer a fork takes ten times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const size_t stride = 17;
#else
const size_t stride = nightly() ? 1 : 3;
#endif

/// One way of saving: the save of `version` over the one before it is what is disturbed.
const struct Way {
    const char* name;
    Saved::Kind_of_store kind;
    int version, step;            ///< step: from round to round
    const char* file = "nothing"; ///< that is damaged as well
} ways[] = {{"journal", Saved::settings, 10, 8, "settings"},
            {"image", Saved::settings, 16, 8, "settings"},
            {"long_checksummed_file", Saved::safe_text, 6, 1, "text"},
            {"short_checksummed_file", Saved::safe_text, 101, 1, "text"},
            {"flash_store_create", Saved::flash_file, 1, 0},
            {"flash_store_append", Saved::flash_file, 2, 0},
            {"flash_store_remove", Saved::flash_file, 50, 0},
            {"history_append", Saved::faults, 2, 0},
            {"history_next_file", Saved::faults, 21, 0}};

using Files = std::map<std::string, std::string>;

class Power_cut : public testing::TestWithParam<std::tuple<Way, int>> {
protected:
    void SetUp() override {
#if defined(__SANITIZE_THREAD__)
        if (way.kind == Saved::faults) GTEST_SKIP() << "a child may begin no thread under this sanitizer";
#endif
        Debug_print::set_debug_file("/dev/null"); // thousands of refusals
        for (int n = 1; n <= version; ++n) {
            before = after;
            ASSERT_TRUE(save(n));
            after.clear();
            for (const auto& e : std::filesystem::directory_iterator(folder.path))
                after[e.path().string()] = read_file(e.path().string());
        }
    }
    void TearDown() override {
        printf("%s: %d cases of cuts and errors, %d cases of damage\n", way.name, attempts, damages);
    }

    void restore(const Files& files) const {
        for (const auto& e : std::filesystem::directory_iterator(folder.path)) std::filesystem::remove(e.path());
        for (const auto& [path, bytes] : files) write_file(path, bytes);
    }
    /// What `act` does with the store in a program that has just started.
    template <class Act, class... Arguments>
    bool use(Act act, Arguments... arguments) {
        if (way.kind >= Saved::flash_file && !Saved::mount(folder.path)) return false;
        auto store = Saved::kinds[way.kind].open(folder.path);
        const bool result = std::invoke(act, *store, arguments...);
        whole = store->whole;
        store.reset();
        Pcf_host::unmount();
        return result;
    }
    bool save(int v) { return use(&Saved::Store::save, v); }
    bool holds(int v) { return use(&Saved::Store::holds, v); }
    /// The version is saved under some trouble.
    void attempt(const std::string& what, const std::function<void()>& trouble) {
        if (HasFailure()) return;
        SCOPED_TRACE(what);
        ++attempts;
        restore(before);
        const int end = in_child([&] {
            trouble();
            return save(version) ? 0 : 1;
        });
        EXPECT_TRUE(end == 0 || end == 1 || end == Faulty::cut_status || end == -SIGXFSZ) << "crash: " << end;
        EXPECT_TRUE(before.count(file) == 0 || std::filesystem::exists(file)) << "the file is gone";
        if (attempts % 8 == 0) { // recovery is cut as well
            in_child([&] {
                Faulty::arm(Faulty::cut_before, 1 + attempts / 8 % 14);
                return holds(version) || save(version);
            });
        }
        Saved::Account account{end == 0 ? version : version - 1, version};
        EXPECT_TRUE(use([&](Saved::Store& s) { return account.settle(s); })) << "neither the old version nor the new";
        for (const auto& e : std::filesystem::directory_iterator(folder.path)) {
            const std::string name = e.path().filename().string(), kind = e.path().extension().string();
            const bool draft = kind == ".new" || kind == ".spare" || name.rfind("flash-store", 0) == 0;
            EXPECT_TRUE(!draft || name.find("lock") != std::string::npos) << "leaves " << name;
        }
        goes_on(account.done + 1);
    }
    /// The newest file is damaged: an earlier version is loaded, and said to be.
    void damage(const std::string& content, const std::string& what) {
        if (HasFailure()) return;
        SCOPED_TRACE(what);
        ++damages;
        restore(after);
        write_file(file, content);
        if (!holds(version)) {
            EXPECT_TRUE(!whole || content.size() < after[file].size()) << "goes unnoticed";
            // Two changes behind an image, and the generation before that.
            EXPECT_TRUE(holds(version - 1) || holds(version - 2) || holds(version - 3)) << "no earlier version either";
        }
        if (damages % 16 == 0) goes_on(version + 8 - version % 8); // settings whole
    }
    void goes_on(int next) { EXPECT_TRUE(save(next) && holds(next)) << "does not go on"; }

    const Way way = std::get<0>(GetParam());
    const int version = way.version + std::get<1>(GetParam()) * way.step;
    const Temporary_folder folder{Temporary_folder::quick};
    const std::string file = folder.file(way.file);
    Files before, after; ///< the save
    int attempts = 0, damages = 0;
    bool whole = true; ///< the last load said that nothing was lost
};

TEST_P(Power_cut, leaves_the_old_version_or_the_new_one) {
    size_t largest = 0;
    for (const auto& [path, bytes] : after) largest = std::max(largest, bytes.size());
    for (size_t k = 0; k <= largest; k += stride) {
        for (const bool cut : {true, false}) {
            attempt((cut ? "cut at byte " : "error at byte ") + std::to_string(k), [cut, k] {
                Faulty::arm(Faulty::none, 0);
                signal(SIGXFSZ, cut ? SIG_DFL : SIG_IGN);
                const rlimit limit = {k, k};
                setrlimit(RLIMIT_FSIZE, &limit);
            });
        }
    }
    const std::tuple<const char*, Faulty::Kind, int> table[] = {
        {"cut before call ", Faulty::cut_before, 0},
        {"without links, cut before call ", Faulty::cut_without_links, 0},
        {"I/O error in call ", Faulty::error_once, EIO},
        {"I/O errors from call ", Faulty::error_for_ever, EIO},
        {"full in call ", Faulty::error_once, ENOSPC},
        {"full from call ", Faulty::error_for_ever, ENOSPC},
        {"read-only from call ", Faulty::error_for_ever, EROFS},
        {"interrupted in call ", Faulty::error_once, EINTR}};
    for (const auto& [what, kind, error] : table) {
        // How many calls a save makes, counted in an undisturbed one.
        restore(before);
        Faulty::arm(kind == Faulty::cut_without_links ? kind : Faulty::none, 0);
        EXPECT_TRUE(save(version));
        Faulty::armed = false;
        const int calls = Faulty::calls;
        EXPECT_GE(calls, 3) << "system calls go unseen";
        EXPECT_EQ(Faulty::hasty, "") << "renamed before its content was synced";
        EXPECT_TRUE(Faulty::unsynced.empty()) << "reported as saved before it was synced";
        for (int n = 1; n <= calls; ++n)
            attempt(what + std::to_string(n), [&, k = kind, e = error] { Faulty::arm(k, n, e); });
    }
    const std::string content = after[file];
    for (size_t at = 0; at < content.size(); at += stride) {
        const std::string where = std::to_string(at), begin = content.substr(0, at);
        damage(begin, "cut to " + where);
        damage(begin + std::string(content.size() - at, '\0'), "zeros from " + where);
        for (const size_t bit : {at % 8, (at + 3) % 8}) {
            std::string flipped = content;
            flipped[at] = static_cast<char>(flipped[at] ^ 1 << bit);
            damage(flipped, "bit " + where + "." + std::to_string(bit));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(of, Power_cut,
                         testing::Combine(testing::ValuesIn(ways), testing::Range(0, nightly() ? 10 : 1)),
                         [](const auto& info) {
                             return std::get<0>(info.param).name + std::to_string(std::get<1>(info.param));
                         });

/// The version that each thread has saved last.
using Completed = std::array<std::atomic<int>, 3>;

/// Each thread saves every third setting, all in one store, or each in a store and a tree of its own for the same file.
int save_for_ever(bool one_store, const std::string& path, Completed& completed) {
    Saved::Tree trees[3];
    std::deque<NV_store::NV_safe_store> stores;
    for (auto& t : trees) stores.emplace_back(t, path.c_str()).load();
    Threads threads;
    for (size_t k = 0; k < 3; ++k) {
        threads.emplace_back([&, k, own = one_store ? 0 : k] {
            for (int version = completed[k] + 1;; ++version) {
                {
                    const std::lock_guard<Saved::Tree> guard(trees[own]);
                    for (size_t i = k; i < 64; i += 3) trees[own].numbers[i].set(version);
                }
                const bool whole = version % 5 == 0 || !one_store;
                if (!is_good(whole ? stores[own].save() : stores[own].save_changes())) abort();
                completed[k] = version; // by another thread's save, if there was nothing left to save
            }
        });
    }
    threads.join();
    return 0;
}

/// What is loaded is never older than the last save that returned, never newer than the one that had begun, never a
/// mixture, and never the generation before.
void judge(bool one_store, const std::string& path, const Completed& completed) {
    Saved::Tree tree;
    using Result = NV_store::Safe_result;
    const Result result = NV_store::NV_safe_store(tree, path.c_str()).load();
    EXPECT_TRUE(result == Result::loaded || result == Result::cut_short ||
                (result == Result::started_from_defaults && completed[0] == 0))
        << to_text(result);
    for (int i = 0; i < 64; ++i) {
        const int version = tree.get(i), least = completed[static_cast<size_t>(i % 3)];
        EXPECT_TRUE(version == tree.get(i % 3) && (!one_store || (least <= version && version <= least + 1)))
            << texts("setting", i, "is of version", version, "completed", least);
    }
}

TEST(Killed_saves, of_three_threads_leave_what_was_completed) {
    Debug_print::set_debug_file("/dev/null"); // cut changes
    for (unsigned seed = 1; seed <= (nightly() ? 6 : 2); ++seed) {
        Random random(seed);
        const Temporary_folder folder{Temporary_folder::quick};
        const std::string path = folder.file("settings");
        const Shared<Completed> completed;
        int kills = 0;
        for (; kills < (nightly() ? 6000 : 120) && !HasFailure(); ++kills) {
            SCOPED_TRACE(texts("seed", seed, "kill", kills));
            const auto disturb = [&, before = (*completed)[0].load()](pid_t pid) {
                EXPECT_TRUE(kills % 2 == 0 || wait_until([&] { return (*completed)[0] > before; }));
                usleep(random(10000));
                kill(pid, SIGKILL);
            };
            EXPECT_EQ(in_child([&] { return save_for_ever(seed % 2, path, *completed); }, disturb), -SIGKILL);
            judge(seed % 2, path, *completed);
        }
        printf("seed %u: %d kills, %d cases of completed saves\n", seed, kills, (*completed)[0].load());
    }
}

} // namespace
