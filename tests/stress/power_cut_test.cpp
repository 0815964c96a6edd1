// SPDX-License-Identifier: MIT
// A child saves and is cut off, at every byte and at every system call, or its system calls fail; then a loader judges.
// Where strace is at hand it kills and fails the calls once more. What is stored is damaged in every bit. Whatever
// happens, the old state or the new one is loaded, and the next save works. With --nightly ten rounds with other trees
// and texts.
#include "NV_store/Settings_fixture.h"
#include "glue/NV_store/NV_file_iterator.h"
#include "glue/NV_store/NV_safe_store.h"
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "platform/pcf_host.h"
#include "stress/faulty_calls.h"
#include "support/test.h"
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>

using namespace NV_store;

namespace {

int rounds = 1;

// Under a sanitizer a fork takes ten times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t stride = 17;
#else
constexpr size_t stride = 1;
#endif

// ---- what is saved

/// A tree whose shape comes from a seed; its state is one number, from which every setting follows.
struct Tree : NV_root {
    explicit Tree(unsigned seed) : NV_root(nullptr, 1, "tree") {
        for (unsigned short i = 0; i < 3 + seed % 4; ++i) {
            NV_container& c = groups.emplace_back(this, this, i, "group");
            for (unsigned short k = 0; k < 4 + (seed + i) % 4; ++k) shorts.emplace_back(&c, k, "short");
            for (unsigned short k = 50; k < 52; ++k) doubles.emplace_back(&c, k, "double");
        }
    }
    /// All settings, or only every tenth.
    void set(int state, bool few = false) {
        int i = 0;
        for (auto& s : shorts)
            if (!few || i++ % 10 == 0) s.set(static_cast<short>(state * 100 + i));
        if (few) return;
        for (auto& d : doubles) d.set(state + 0.5);
    }
    std::string text() const {
        char all[4096];
        _to_string(all, sizeof all);
        return all;
    }
    std::deque<NV_container> groups;
    std::deque<NV_int16> shorts;
    std::deque<NV_double> doubles;
};

struct Loaded {
    std::string state;
    bool good; ///< the load said that nothing was lost
};

/// One way of saving. The states are 0, 1 and so on; each save goes to the next one.
struct Protocol {
    explicit Protocol(std::string n) : name(std::move(n)) {}
    virtual ~Protocol() = default;
    virtual bool save(const std::string& folder, int state) = 0; ///< as a program that has just started
    virtual Loaded load(const std::string& folder) = 0;
    /// What a save makes of another state than the one before it.
    virtual std::string expected(const std::string&, const std::string& state_text, int) { return state_text; }
    const std::string name;
};

struct Store_protocol : Protocol {
    Store_protocol(bool c, unsigned s) : Protocol(c ? "journal" : "image"), changes(c), seed(s) {}
    bool save(const std::string& folder, int state) override {
        Tree tree(seed);
        NV_safe_store store(tree, (folder + "/settings").c_str());
        store.load();
        tree.set(state, changes && state > 1);
        const Safe_result result = changes && state > 1 ? store.save_changes() : store.save();
        return result == Safe_result::saved;
    }
    Loaded load(const std::string& folder) override {
        Tree tree(seed);
        NV_safe_store store(tree, (folder + "/settings").c_str());
        const Safe_result result = store.load();
        return {tree.text(), is_good(result)};
    }
    std::string expected(const std::string& before, const std::string&, int state) override {
        Tree tree(seed);
        tree._from_string(before.c_str());
        tree.set(state, changes && state > 1);
        return tree.text();
    }
    const bool changes;
    const unsigned seed;
};

struct Checksummed_protocol : Protocol {
    explicit Checksummed_protocol(size_t n) : Protocol("checksummed file of " + std::to_string(n)), size(n) {}
    bool save(const std::string& folder, int state) override {
        return save_checksummed((folder + "/text").c_str(), std::string(size, static_cast<char>('a' + state))) ==
               Safe_result::saved;
    }
    Loaded load(const std::string& folder) override {
        std::string text;
        const Safe_result result = load_checksummed((folder + "/text").c_str(), text);
        return {is_good(result) || result == Safe_result::fell_back ? text : "none", is_good(result)};
    }
    const size_t size;
};

/// Each save appends a block of its own to a file, or makes a file of its own, or removes one of the first two.
struct Flash_protocol : Protocol {
    enum Way { append, create, remove };
    explicit Flash_protocol(Way w) : Protocol(std::string("flash store, ") + names[w]), way(w) {}
    bool save(const std::string& folder, int state) override {
        if (!Pcf_host::mount(folder.c_str(), 10000)) return false;
        const std::string file = way == append ? "log" : "f" + std::to_string(state);
        if (way == remove && state > 1) return pcfRemove(("f" + std::to_string(3 - state)).c_str()) == PCF_DONE;
        if ((pcfExists(file.c_str()) ? pcfOpenWrite(file.c_str(), -1) : pcfCreateWrite(file.c_str(), -1)) != PCF_DONE)
            return false;
        const std::string block(70, static_cast<char>('a' + state));
        const bool written = pcfWrite(block.data(), 40, -1) == 40 && pcfWrite(block.data(), 30, -1) == 30;
        return pcfCloseWrite(-1) && written;
    }
    Loaded load(const std::string& folder) override {
        if (!Pcf_host::mount(folder.c_str(), 10000)) return {"not mounted", false};
        std::string all;
        char name[256], bytes[1000];
        for (unsigned i = 0; pcfGetFileName(i, name); ++i) {
            PcfResult result;
            pcfOpenRead(name, 0, 0);
            const int n = pcfRead(bytes, sizeof bytes, &result, 0);
            pcfCloseRead(0);
            all += std::string(name) + "=" + std::string(bytes, static_cast<size_t>(n)) + ";";
        }
        PcfInfo info = {0, 0};
        pcfInfo(&info);
        Pcf_host::unmount();
        return {all, info.size == 10000};
    }
    static constexpr const char* names[] = {"append", "create", "remove"};
    const Way way;
};

// ---- cases

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
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    if (WIFSIGNALED(status)) return WTERMSIG(status) == SIGXFSZ || WTERMSIG(status) == SIGKILL ? cut : crashed;
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
    explicit Judge(Protocol& p) : _p(p) {
        for (int state = 0; state <= 3; ++state) {
            EXPECT_TRUE(_p.save(folder.path, state)) << _p.name;
            Pcf_host::unmount();
            states.push_back(_p.load(folder.path).state);
            stored.push_back(snapshot(folder.path));
        }
        EXPECT_NE(states[1], states[2]);
        EXPECT_NE(states[2], states[3]);
    }
    ~Judge() {
        printf("%s: %d cases, %d violations\n", _p.name.c_str(), cases, violations);
        EXPECT_EQ(violations, 0);
        EXPECT_GE(cases, 10);
    }

    void check(bool holds, const std::string& what) {
        if (holds) return;
        if (++violations <= 5) ADD_FAILURE() << _p.name << ": " << what;
    }

    /// State 2 is saved over state 1 under some trouble.
    Ending attempt(const std::string& what, const std::function<void()>& trouble) {
        ++cases;
        restore(folder.path, stored[1]);
        const Ending ending = in_child([&] {
            trouble();
            return _p.save(folder.path, 2);
        });
        check(ending != crashed, what + ": crash");
        for (const char* file : {"/settings", "/text"})
            check(!stored[1].count(folder.path + file) || std::filesystem::exists(folder.path + file),
                  what + ": no" + file);
        // Every few cases recovery is cut as well.
        if (cases % 8 == 0) {
            in_child([&] {
                Faulty::arm(Faulty::cut_before, 1 + cases / 8 % 14);
                return _p.save(folder.path, 2);
            });
            expect_new_or(true, what + ", and again");
        } else {
            expect_new_or(ending != succeeded, what);
        }
        for (const auto& e : std::filesystem::directory_iterator(folder.path)) {
            const std::string file = e.path().filename().string(), kind = e.path().extension().string();
            const bool draft = kind == ".new" || kind == ".spare" || file.rfind("flash-store", 0) == 0;
            check(!draft || file.find("lock") != std::string::npos, what + ": leaves " + file);
        }
        goes_on(what);
        return ending;
    }

    void expect_new_or(bool old_allowed, const std::string& what) {
        const std::string now = _p.load(folder.path).state;
        check(now == states[2] || (old_allowed && now == states[1]), what + ": loaded " + now);
    }

    /// The next save and load work.
    void goes_on(const std::string& what) {
        const std::string before = _p.load(folder.path).state;
        const int next = before == states[1] ? 2 : 3;
        const bool saved = _p.save(folder.path, next);
        Pcf_host::unmount();
        const std::string expected = _p.expected(before, states[static_cast<size_t>(next)], next);
        check(saved && _p.load(folder.path).state == expected, what + ": does not go on");
    }

    Temporary_folder folder{Temporary_folder::quick_place()};
    std::vector<std::string> states;
    std::vector<Files> stored; ///< files of each state
    int cases = 0, violations = 0;

private:
    Protocol& _p;
};

void cut_everywhere(Protocol& p) {
    Judge judge(p);
    rlim_t largest = 0;
    for (const auto& [path, bytes] : judge.stored[2]) largest = std::max<rlim_t>(largest, bytes.size());
    for (rlim_t k = 0; k <= largest; k += stride) {
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
                 {"read-only from call ", Faulty::error_for_ever, EROFS},
                 {"interrupted in call ", Faulty::error_once, EINTR}};
    for (const auto& row : table) {
        int calls = 1;
        for (int n = 1; n <= calls; ++n) {
            judge.attempt(row.what + std::to_string(n), [&] { Faulty::arm(row.kind, n, row.error); });
            if (n > 1) continue;
            // How many calls a save makes, counted in an undisturbed one.
            restore(judge.folder.path, judge.stored[1]);
            Faulty::arm(row.kind == Faulty::cut_without_links ? row.kind : Faulty::none, 0);
            judge.check(p.save(judge.folder.path, 2), "undisturbed save");
            calls = Faulty::calls;
            judge.check(Faulty::hasty.empty(), "renamed before its content was synced: " + Faulty::hasty);
            judge.check(Faulty::unsynced.empty(), "reported as saved before it was synced");
            Faulty::armed = false;
            Pcf_host::unmount();
        }
        judge.check(calls >= 3, "system calls go unseen");
    }
}

/// Truncations, zeros behind a cut, and flipped bits in the newest file: an earlier state is loaded, and said to be.
void damage_everywhere(Protocol& p, const std::string& file) {
    Judge judge(p);
    const std::string path = judge.folder.file(file), whole = judge.stored[2].at(path);
    const auto judge_content = [&](const std::string& content, const std::string& what) {
        ++judge.cases;
        restore(judge.folder.path, judge.stored[2]);
        write_file(path, content);
        const Loaded l = p.load(judge.folder.path);
        const bool newest = l.state == judge.states[2];
        judge.check(newest || l.state == judge.states[1] || l.state == judge.states[0], what + ": loaded " + l.state);
        judge.check(newest || !l.good || content.size() < whole.size(), what + ": goes unnoticed");
        if (judge.cases % 16 == 0) judge.goes_on(what);
    };
    for (size_t at = 0; at < whole.size(); at += stride) {
        judge_content(whole.substr(0, at), "cut to " + std::to_string(at));
        judge_content(whole.substr(0, at) + std::string(whole.size() - at, '\0'), "zeros from " + std::to_string(at));
        for (int bit = 0; bit < 8; ++bit) {
            std::string flipped = whole;
            flipped[at] = static_cast<char>(flipped[at] ^ 1 << bit);
            judge_content(flipped, "bit " + std::to_string(at) + "." + std::to_string(bit));
        }
    }
}

TEST(Power_cut, Images_and_journals) {
    for (int round = 0; round < 2 * rounds; ++round) {
        Store_protocol p(round % 2, static_cast<unsigned>(round / 2));
        cut_everywhere(p);
        damage_everywhere(p, "settings");
    }
}

TEST(Power_cut, Checksummed_files) {
    for (int round = 0; round < rounds; ++round) {
        for (const size_t n : {1, 100, 255, 300}) {
            Checksummed_protocol p(n + static_cast<size_t>(round));
            cut_everywhere(p);
            damage_everywhere(p, "text");
        }
    }
}

TEST(Power_cut, Flash_store) {
    for (const auto way : {Flash_protocol::append, Flash_protocol::create, Flash_protocol::remove}) {
        Flash_protocol p(way);
        cut_everywhere(p);
    }
}

// ---- system calls killed or failed from outside

/// Have strace follow this process and tamper with a system call; false when it cannot.
bool tamper(const std::string& injection) {
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    const std::string pid = std::to_string(getpid()), inject = "inject=" + injection;
    if (fork() == 0) {
        close(STDERR_FILENO);
        execlp("strace", "strace", "-qq", "-o", "/dev/null", "-e", "inject=getppid:retval=77", "-e", inject.c_str(),
               "-p", pid.c_str(), nullptr);
        _exit(1);
    }
    for (int i = 0; i < 3000; ++i, usleep(1000))
        if (getppid() == 77) return true; // a wrong answer: strace has taken hold
    return false;
}

TEST(Power_cut, Every_system_call_is_killed_and_failed_by_strace) {
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0); // of what a killed child leaves behind
    if (in_child([] { return tamper("fsync:error=EIO:when=65535"); }) != succeeded)
        GTEST_SKIP() << "there is no strace here, or it may not follow a process";
    Store_protocol image(false, 1), journal(true, 1);
    Checksummed_protocol text(300);
    Flash_protocol append(Flash_protocol::append), create(Flash_protocol::create), remove(Flash_protocol::remove);
    for (Protocol* p : std::initializer_list<Protocol*>{&image, &journal, &text, &append, &create, &remove}) {
        Judge judge(*p);
        for (const char* call :
             {"?open", "openat", "read", "pread64", "write", "pwrite64", "ftruncate", "fsync", "close", "?newfstatat",
              "?fstat", "?link", "linkat", "?unlink", "unlinkat", "?rename", "?renameat"}) {
            const auto with = [&](const char* trouble, int n) {
                const std::string injection = std::string(call) + trouble + ":when=" + std::to_string(n);
                return judge.attempt(injection, [&] {
                    if (!tamper(injection)) abort();
                });
            };
            int n = 1;
            while (with(":signal=KILL", n) == cut) ++n;
            for (; n > 1; --n) with(":error=EIO", n - 1);
        }
    }
}

// ---- a medium that is full, or read-only

/// Mount a small medium of this process's own.
bool mount_small(const std::string& at) {
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", at.c_str(), "tmpfs", 0, "size=64k") == 0;
}

TEST(Power_cut, A_full_or_read_only_medium_keeps_the_old_state) {
    Temporary_folder folder;
    const std::string at = folder.path;
    if (in_child([&] { return mount_small(at); }) != succeeded) GTEST_SKIP() << "no file systems can be mounted here";
    Store_protocol image(false, 1), journal(true, 1);
    Checksummed_protocol text(300);
    int cases = 0;
    for (Protocol* p : std::initializer_list<Protocol*>{&image, &journal, &text}) {
        for (int pages = 0; pages <= 8; ++pages) {
            ++cases;
            const Ending ending = in_child([&] {
                if (!mount_small(at) || !p->save(at, 0) || !p->save(at, 1)) return false;
                const std::string old = p->load(at).state, filler = at + "/filler";
                // Leave so many pages.
                for (int n = 0; std::ofstream(filler + std::to_string(n)) << std::string(4096, 'x') << std::flush;) ++n;
                for (int i = 0; i < pages; ++i) std::filesystem::remove(filler + std::to_string(i));
                const bool saved = p->save(at, 2);
                if ((p->load(at).state != old) != saved || (pages == 8 && !saved)) return false;
                if (pages == 0 && saved && p != &journal) return false;
                // Read-only: no save, but a load.
                const std::string now = p->load(at).state;
                return mount("", at.c_str(), "", MS_REMOUNT | MS_RDONLY, nullptr) == 0 && !p->save(at, 3) &&
                       p->load(at).state == now;
            });
            EXPECT_EQ(ending, succeeded) << p->name << " with " << pages << " pages free";
        }
    }
    printf("full and read-only medium: %d cases\n", cases);
}

// ---- in place

/// A save in place is not safe, and loses exactly this: values that were whole at the cut are loaded, and a container
/// whose checksum is cut returns to its defaults.
std::string outcome_in_place(Settings& full, const std::string& image, size_t cut) {
    Settings model(nullptr);
    size_t at = 4; // behind the root's start header
    const auto value = [&](NV_item& item, NV_item& from, size_t size) {
        at += 4 + size;
        if (at > cut) return;
        char text[64];
        from._to_string(text, sizeof text);
        item._from_string(text);
    };
    const auto end = [&](NV_container& c) {
        at += 4;
        if (at <= cut && cut < at + 4) c.set_default(true);
        at += 4;
    };
    value(model.speed, full.speed, 4);
    at += 4;
    value(model.wheel.fitted, full.wheel.fitted, 1);
    value(model.wheel.offset, full.wheel.offset, 2);
    end(model.wheel);
    at += 4;
    value(model.sections.left, full.sections.left, 2);
    value(model.sections.middle, full.sections.middle, 2);
    value(model.sections.right, full.sections.right, 2);
    end(model.sections);
    value(model.active, full.active, 5);
    end(model);
    EXPECT_EQ(at, image.size());
    return model.text();
}

TEST(Power_cut, In_place_saves_lose_what_they_are_known_to_lose) {
    Temporary_folder folder{Temporary_folder::quick_place()};
    const std::string path = folder.file("settings");
    Settings full(nullptr);
    full.set_all();
    const auto save = [&] {
        NV_file_iterator it(path.c_str());
        return it.set_mode(NV_iterator::mode_write) == 0 && full.serialise(&it);
    };
    ASSERT_TRUE(save());
    const std::string image = read_file(path);
    int cases = 0;
    for (size_t k = 0; k <= image.size(); ++k, ++cases) {
        const Ending ending = in_child([&] {
            limit_files(k, true);
            return save();
        });
        EXPECT_EQ(ending, k < image.size() ? cut : succeeded);
        ASSERT_EQ(read_file(path), image.substr(0, k));
        Settings loaded(nullptr);
        NV_file_iterator it(path.c_str());
        it.set_mode(NV_iterator::mode_read);
        EXPECT_EQ(loaded.deserialise(&it), k == image.size());
        EXPECT_EQ(loaded.text(), outcome_in_place(full, image, k)) << k;
    }
    const std::string text(255, 'x');
    for (size_t k = 0; k <= text.size() + 16; ++k, ++cases) {
        in_child([&] {
            limit_files(k, true);
            File_checksummed_data_stream stream;
            stream.open_write(path.c_str());
            stream._write(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned>(text.size()));
            return stream.close_write();
        });
        ASSERT_EQ(std::filesystem::file_size(path), k);
        EXPECT_EQ(File_checksummed_data_stream().open_read(path.c_str()), k == text.size() + 16) << k;
    }
    printf("in place: %d cases\n", cases);
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (nightly()) rounds = 10;
    Debug_print::set_debug_file("/dev/null"); // thousands of refusals
    return RUN_ALL_TESTS();
}
