// SPDX-License-Identifier: MIT
// Whatever a machine saves is saved by a child that is cut off, at its bytes and at every system call, or whose system
// calls fail; then a fresh process judges. What is stored is damaged byte by byte. Whatever happens, the old version
// or the new one is there, and the next save works. tests/kernel cuts file systems. With --nightly ten rounds with
// other versions.
#include "kernel/Saved_stores.h"
#include "stress/faulty_calls.h"
#include "support/test.h"
#include <sys/resource.h>

namespace {

// Of so many bytes one is tried. Under a sanitizer a fork takes ten times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const size_t stride = 17;
#else
const size_t stride = nightly() ? 1 : 3;
#endif

template <class Store>
std::unique_ptr<Saved::Store> in_folder(const std::string& folder) {
    return std::make_unique<Store>(folder);
}
template <class Store>
std::unique_ptr<Saved::Store> in_flash(const std::string& folder) {
    if (!Pcf_host::mount(folder.c_str(), 1000000)) return nullptr;
    return std::make_unique<Store>();
}

/// One way of saving: the save of `version` over the one before it is what is disturbed.
const struct Way {
    const char* name;
    std::unique_ptr<Saved::Store> (*open)(const std::string& folder); ///< as a program that has just started
    int version, step;                                                ///< step: from round to round; 0: one round
    const char* file;                                                 ///< that is damaged as well, or null
} ways[] = {
    {"journal", in_folder<Saved::Settings>, 10, 8, "settings"},
    {"image", in_folder<Saved::Settings>, 16, 8, "settings"},
    {"long checksummed file", in_folder<Saved::Safe_text>, 6, 1, "text"},
    {"short checksummed file", in_folder<Saved::Safe_text>, 101, 1, "text"},
    {"flash store, create", in_flash<Saved::Flash_file>, 1, 0, nullptr},
    {"flash store, append", in_flash<Saved::Flash_file>, 2, 0, nullptr},
    {"flash store, remove", in_flash<Saved::Flash_file>, 50, 0, nullptr},
    {"history, append", in_flash<Saved::Faults>, 2, 0, nullptr},
    {"history, next file", in_flash<Saved::Faults>, 21, 0, nullptr},
};

using Files = std::map<std::string, std::string>;

Files snapshot(const std::string& folder) {
    Files all;
    for (const auto& e : std::filesystem::directory_iterator(folder))
        all[e.path().string()] = read_file(e.path().string());
    return all;
}

void restore(const std::string& folder, const Files& files) {
    for (const auto& e : std::filesystem::directory_iterator(folder)) std::filesystem::remove(e.path());
    for (const auto& [path, bytes] : files) write_file(path, bytes);
}

enum Ending { succeeded, failed, cut, crashed };

Ending in_child(const std::function<bool()>& body) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) _exit(body() ? 0 : 1);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFSIGNALED(status)) return WTERMSIG(status) == SIGXFSZ ? cut : crashed;
    const int code = WEXITSTATUS(status);
    return code == 0 ? succeeded : code == 1 ? failed : code == Faulty::cut_status ? cut : crashed;
}

void limit_files(rlim_t bytes, bool cut_there) {
    signal(SIGXFSZ, cut_there ? SIG_DFL : SIG_IGN);
    const rlimit limit = {bytes, bytes};
    setrlimit(RLIMIT_FSIZE, &limit);
}

class Judge {
public:
    Judge(const Way& w, int v) : way(w), version(v) {
        for (int n = 1; n <= version; ++n) {
            before = snapshot(folder.path);
            check(save(n), "undisturbed save");
        }
        after = snapshot(folder.path);
    }
    ~Judge() {
        printf("%s: %d cases, %d violations\n", way.name, cases, violations);
        EXPECT_EQ(violations, 0);
        EXPECT_GE(cases, 10);
    }

    void check(bool holds, const std::string& what) {
        if (holds) return;
        if (++violations <= 5) ADD_FAILURE() << way.name << ": " << what;
    }
    bool save(int v) {
        return use([v](Saved::Store& s) { return s.save(v); });
    }
    bool holds(int v, bool* whole = nullptr) {
        return use([&](Saved::Store& s) {
            const bool there = s.holds(v);
            if (whole) *whole = s.whole;
            return there;
        });
    }

    /// The version is saved under some trouble.
    void attempt(const std::string& what, const std::function<void()>& trouble) {
        ++cases;
        restore(folder.path, before);
        Ending ending = in_child([&] {
            trouble();
            return save(version);
        });
        check(ending != crashed, what + ": crash");
        if (way.file && before.count(folder.file(way.file)))
            check(std::filesystem::exists(folder.file(way.file)), what + ": the file is gone");
        if (cases % 8 == 0) { // recovery is cut as well
            in_child([&] {
                Faulty::arm(Faulty::cut_before, 1 + cases / 8 % 14);
                return holds(version) || save(version);
            });
            ending = cut;
        }
        const bool is_new = holds(version);
        check(is_new || (ending != succeeded && holds(version - 1)), what + ": neither the old version nor the new");
        for (const auto& e : std::filesystem::directory_iterator(folder.path)) {
            const std::string file = e.path().filename().string(), kind = e.path().extension().string();
            const bool draft = kind == ".new" || kind == ".spare" || file.rfind("flash-store", 0) == 0;
            check(!draft || file.find("lock") != std::string::npos, what + ": leaves " + file);
        }
        goes_on(is_new ? version + 1 : version, what);
    }
    /// The next save and load work.
    void goes_on(int next, const std::string& what) { check(save(next) && holds(next), what + ": does not go on"); }

    const Way& way;
    const int version;
    Temporary_folder folder{Temporary_folder::quick_place()};
    Files before, after; ///< the save
    int cases = 0;

private:
    bool use(const std::function<bool(Saved::Store&)>& act) {
        const auto store = way.open(folder.path);
        const bool result = store && act(*store);
        Pcf_host::unmount();
        return result;
    }

    int violations = 0;
};

void cut_everywhere(Judge& judge) {
    size_t largest = 0;
    for (const auto& [path, bytes] : judge.after) largest = std::max(largest, bytes.size());
    for (size_t k = 0; k <= largest; k += stride) {
        judge.attempt("cut at byte " + std::to_string(k), [k] { limit_files(k, true); });
        judge.attempt("error at byte " + std::to_string(k), [k] { limit_files(k, false); });
    }
    const struct {
        const char* what;
        Faulty::Kind kind;
        int error;
    } table[] = {{"cut before call ", Faulty::cut_before, 0},
                 {"without links, cut before call ", Faulty::cut_without_links, 0},
                 {"I/O error in call ", Faulty::error_once, EIO},
                 {"I/O errors from call ", Faulty::error_for_ever, EIO},
                 {"full in call ", Faulty::error_once, ENOSPC},
                 {"full from call ", Faulty::error_for_ever, ENOSPC},
                 {"read-only from call ", Faulty::error_for_ever, EROFS},
                 {"interrupted in call ", Faulty::error_once, EINTR}};
    for (const auto& row : table) {
        // How many calls a save makes, counted in an undisturbed one.
        restore(judge.folder.path, judge.before);
        Faulty::arm(row.kind == Faulty::cut_without_links ? row.kind : Faulty::none, 0);
        judge.check(judge.save(judge.version), "undisturbed save");
        Faulty::armed = false;
        const int calls = Faulty::calls;
        judge.check(calls >= 3, "system calls go unseen");
        judge.check(Faulty::hasty.empty(), "renamed before its content was synced: " + Faulty::hasty);
        judge.check(Faulty::unsynced.empty(), "reported as saved before it was synced");
        for (int n = 1; n <= calls; ++n)
            judge.attempt(row.what + std::to_string(n), [&] { Faulty::arm(row.kind, n, row.error); });
    }
}

/// Truncations, zeros behind a cut, and flipped bits in the newest file: an earlier version is loaded, and said to be.
void damage_everywhere(Judge& judge) {
    const std::string path = judge.folder.file(judge.way.file), whole = judge.after.at(path);
    const int version = judge.version;
    const auto judge_content = [&](const std::string& content, const std::string& what) {
        ++judge.cases;
        restore(judge.folder.path, judge.after);
        write_file(path, content);
        bool good = true;
        if (!judge.holds(version, &good)) {
            judge.check(!good || content.size() < whole.size(), what + ": goes unnoticed");
            bool earlier = false; // two changes behind an image, and the generation before that
            for (int back = 1; back <= 3; ++back) earlier = earlier || judge.holds(version - back);
            judge.check(earlier, what + ": no earlier version either");
        }
        if (judge.cases % 16 == 0) judge.goes_on(version + 8 - version % 8, what); // settings whole
    };
    for (size_t at = 0; at < whole.size(); at += stride) {
        judge_content(whole.substr(0, at), "cut to " + std::to_string(at));
        judge_content(whole.substr(0, at) + std::string(whole.size() - at, '\0'), "zeros from " + std::to_string(at));
        for (const size_t bit : {at % 8, (at + 3) % 8}) {
            std::string flipped = whole;
            flipped[at] = static_cast<char>(flipped[at] ^ 1 << bit);
            judge_content(flipped, "bit " + std::to_string(at) + "." + std::to_string(bit));
        }
    }
}

class Power_cut : public testing::TestWithParam<Way> {};

TEST_P(Power_cut, leaves_the_old_version_or_the_new_one) {
    Debug_print::set_debug_file("/dev/null"); // thousands of refusals
    const Way& way = GetParam();
#if defined(__SANITIZE_THREAD__)
    if (way.open == in_flash<Saved::Faults>) GTEST_SKIP() << "a child may begin no thread under this sanitizer";
#endif
    for (int round = 0; round < (nightly() && way.step ? 10 : 1); ++round) {
        Judge judge(way, way.version + round * way.step);
        cut_everywhere(judge);
        if (way.file) damage_everywhere(judge);
    }
}

INSTANTIATE_TEST_SUITE_P(of, Power_cut, testing::ValuesIn(ways), [](const auto& info) {
    std::string name = info.param.name;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
    return name;
});

} // namespace
