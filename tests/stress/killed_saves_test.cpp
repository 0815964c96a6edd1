// SPDX-License-Identifier: MIT
// A process that saves settings from several threads is killed at a random moment, and started again, and so on. Each
// setting is a version: what is loaded after a kill is never older than the last save that returned, never newer than
// the last one that began, never a mixture, and never the generation before. With --nightly for minutes.
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_safe_store.h"
#include "support/test.h"
#include <new>
#include <sys/mman.h>

using namespace NV_store;

namespace {

constexpr int num_settings = 30, most_threads = 3;

struct Tree : NV_root {
    Tree() : NV_root(nullptr, 1, "tree") {
        for (unsigned short i = 0; i < num_settings; ++i)
            versions.emplace_back(i % 2 ? &group : static_cast<NV_container*>(this), i, "version");
    }
    NV_container group{this, this, 99, "group"};
    std::deque<NV_int32> versions;
};

struct Way {
    const char* name;
    int threads;
    int whole_every; ///< of so many saves one is of the whole tree
    bool one_store;  ///< of all threads; else each has its own, of its own tree, for the same file
};

/// What the process that saves tells the one that judges.
struct Progress {
    std::atomic<int> begun[most_threads], completed[most_threads];
};

/// Each thread saves version after version of every nth setting.
void save_for_ever(const Way& way, const std::string& path, Progress& p) {
    std::vector<std::thread> threads;
    Tree trees[most_threads];
    std::deque<NV_safe_store> stores;
    for (Tree& t : trees) stores.emplace_back(t, path.c_str()).load();
    for (int k = 0; k < way.threads; ++k) {
        threads.emplace_back([&, k] {
            const int own = way.one_store ? 0 : k, step = way.one_store ? way.threads : 1;
            for (int version = p.completed[k] + 1;; ++version) {
                p.begun[k] = version;
                {
                    const std::lock_guard<Tree> guard(trees[own]);
                    for (int i = k % step; i < num_settings; i += step) trees[own].versions[size_t(i)].set(version);
                }
                NV_safe_store& store = stores[size_t(own)];
                const Safe_result result = version % way.whole_every ? store.save_changes() : store.save();
                if (!is_good(result)) abort();
                p.completed[k] = version; // by another thread's save, if there was nothing left to save
            }
        });
    }
    for (auto& t : threads) t.join();
}

/// What is wrong with what is loaded; empty: nothing.
std::string judge(const Way& way, const std::string& path, const Progress& p) {
    Tree tree;
    const Safe_result result = NV_safe_store(tree, path.c_str()).load();
    const bool none = result == Safe_result::started_from_defaults && p.completed[0] == 0;
    if (!none && result != Safe_result::loaded && result != Safe_result::cut_short) return to_text(result);
    for (int i = 0; i < num_settings; ++i) {
        const int k = way.one_store ? i % way.threads : 0, version = tree.versions[size_t(i)].get();
        const bool mixed = version != tree.versions[size_t(k)].get();
        if (mixed || (way.one_store && (version < p.completed[k] || version > p.begun[k])))
            return "setting " + std::to_string(i) + " is of version " + std::to_string(version) + ", completed " +
                   std::to_string(p.completed[k]) + ", begun " + std::to_string(p.begun[k]);
    }
    return "";
}

TEST(Killed_saves, What_was_completed_is_found) {
    Debug_print::set_debug_file("/dev/null"); // cut changes
    const Way ways[] = {{"whole", 1, 1, true},
                        {"changes", 1, 20, true},
                        {"three threads", 3, 5, true},
                        {"three threads with a store each", 3, 1, false}};
    const int kills = nightly() ? 3000 : 60;
    for (const unsigned seed : {1u, 2u, 3u}) {
        if (seed > 1 && !nightly()) break;
        for (const Way& way : ways) {
            std::mt19937 random(seed);
            Temporary_folder folder{Temporary_folder::quick_place()};
            const std::string path = folder.file("settings");
            void* const shared =
                mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
            Progress& progress = *new (shared) Progress{};
            int kill_no = 0;
            for (std::string wrong; kill_no < kills && wrong.empty(); ++kill_no) {
                const pid_t pid = fork();
                if (pid == 0) save_for_ever(way, path, progress);
                const auto saved = [&, before = progress.completed[0].load()] {
                    return progress.completed[0] > before;
                };
                EXPECT_TRUE(kill_no % 2 == 0 || wait_until(saved)) << way.name;
                usleep(random() % 10000);
                kill(pid, SIGKILL);
                int status = 0;
                waitpid(pid, &status, 0);
                wrong =
                    WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL ? judge(way, path, progress) : "a save failed";
                EXPECT_EQ(wrong, "") << way.name << ", seed " << seed << ", kill " << kill_no;
            }
            printf("%s: %d kills, %d cases of completed saves\n", way.name, kill_no, progress.completed[0].load());
            munmap(shared, sizeof(Progress));
        }
    }
}

} // namespace
