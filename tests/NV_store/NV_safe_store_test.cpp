// SPDX-License-Identifier: MIT
// What the power-cut test, which cuts and damages every byte, cannot tell: results, names of files, and what is
// dropped.
#include "NV_store/Image_builder.h"
#include "NV_store/Settings_fixture.h"
#include "glue/NV_store/NV_safe_store.h"
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "support/test.h"
#include <dlfcn.h>
#include <sys/resource.h>

using namespace NV_store;
namespace fs = std::filesystem;
using namespace Image;

namespace {
const NV_root* never_locked = nullptr; ///< while the medium is busy
int syncs = 0, failing_sync = 0;
int open_error = 0, read_error = 0; ///< errno of every opening of a file for reading, and of every reading
} // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))
EXPORTED int fsync(int) {
    EXPECT_FALSE(never_locked && never_locked->is_locked());
    errno = EIO;
    return ++syncs == failing_sync ? -1 : 0;
}

EXPORTED int open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(args, mode_t) : 0;
    va_end(args);
    errno = open_error;
    return open_error && !(flags & (O_CREAT | O_DIRECTORY)) ? -1 : openat(AT_FDCWD, path, flags, mode);
}

EXPORTED ssize_t pread(int fd, void* to, size_t n, off_t at) {
    static const auto real = reinterpret_cast<decltype(&::pread)>(dlsym(RTLD_NEXT, "pread64"));
    errno = read_error;
    return read_error ? -1 : real(fd, to, n, at);
}

namespace {

/// A program that keeps its settings in a file.
struct Program {
    explicit Program(const std::string& path) : store(tree, path.c_str()) {}
    /// What it finds: the result, the settings, and how many records were dropped.
    std::string load() { return Values{to_text(store.load()), tree.text(), store.get_dropped()}.text; }
    std::string save() { return to_text(store.save()); }
    std::string save_changes() { return to_text(store.save_changes()); }
    Settings tree{nullptr};
    NV_safe_store store;
};

struct Safe_store : testing::Test {
    Safe_store() { never_locked = &program.tree; }
    std::string all(const char* result = "loaded") { return texts(result, tree.text(), 0); }
    std::string restart() { return Program(path).load(); }
    /// Names, kinds, rights and contents in the folder.
    std::map<std::string, std::string> all_files() const {
        std::map<std::string, std::string> files;
        for (const auto& e : fs::directory_iterator(folder.path)) {
            struct stat s;
            lstat(e.path().c_str(), &s);
            files[e.path().filename()] = texts(s.st_ino, s.st_mode, S_ISREG(s.st_mode) ? read_file(e.path()) : "");
        }
        return files;
    }

    Temporary_folder folder;
    const std::string path = folder.file("settings"), defaults = Settings(nullptr).text();
    Capture quiet{stderr};
    Program program{path};
    Settings& tree = program.tree;
};

constexpr char fell_back[] = "fell back to the generation before", unreadable[] = "unreadable, left as it is";

TEST_F(Safe_store, Saves_completely_and_then_what_changed) {
    EXPECT_EQ(program.load(), all("started from defaults"));
    EXPECT_VALUES("nothing to save false", program.save(), fs::exists(path)) << "nothing is loaded or set";
    tree.set_all();
    EXPECT_VALUES("saved 2", program.save(), syncs) << "the file and its folder";
    const std::string image = read_file(path);

    EXPECT_EQ(program.save_changes(), "nothing to save");
    write_file(path, image + std::string(99, 'x')); // what a cut left, and the next append removes
    tree.wheel.offset.set(123);
    EXPECT_VALUES(texts("saved", image.size() + 12 + 12 + 6), program.save_changes(), fs::file_size(path))
        << "two frames and the value";
    tree.sections.middle.set(55);
    EXPECT_VALUES("saved " + all(), program.save_changes(), restart()) << "a list is saved whole";
    EXPECT_VALUES(texts("saved", image.size()), program.save(), fs::file_size(path));
    fs::remove(path);
    EXPECT_EQ(restart(), all(fell_back)) << "the generation before holds its changes too";
    tree.speed.set(1);
    const std::string last = all();
    EXPECT_VALUES("saved " + last, program.save_changes(), restart()) << "without a file to append to";
    tree.wheel.offset.set(5);
    EXPECT_EQ(program.load(), last) << "replaces every setting";
    write_file(path, frame(0, 1, value(10, 2, bytes({0, 0, 0x20, 0x40}))));
    EXPECT_EQ(program.load(), "loaded {2.5,{true,-2},{0,0,0},} 0") << "also those that the file lacks";
}

TEST_F(Safe_store, A_refused_file_is_kept_and_the_generation_before_is_loaded) {
    tree.set_all();
    program.save();
    const std::string old = all(fell_back);
    tree.speed.set(9);
    program.save();
    std::string damaged = read_file(path);
    damaged[5] ^= 1;
    write_file(path, damaged);
    for (const char* kept : {": kept as settings.bad\n", "\n"}) {
        Capture told(stderr);
        EXPECT_VALUES(texts(old, damaged, false), restart(), read_file(path + ".bad"), fs::exists(path));
        EXPECT_EQ(told.text(), "NV_safe_store " + path + ": " + fell_back + kept);
    }
    // Damage that comes while the program runs does not push the good one out either.
    write_file(path, damaged);
    ASSERT_EQ(program.save(), "saved");
    write_file(path, "x");
    EXPECT_EQ(restart(), old);
    EXPECT_VALUES(texts(damaged, damaged, "x"), read_file(path + ".bad"), read_file(path + ".bad2"),
                  read_file(path + ".bad3"));

    int at = 4;
    for (const std::string& image :
         {frame(0, 2, ""), frame(1, 1, ""), std::string(), std::string(100, '\0'), value(8, 1, "xx"),
          frame(0, 1, value(14, 5, bytes({17}) + std::string(34, 'x'))), frame(0, 1, value(12, 5, "x"))}) {
        write_file(path, image);
        write_file(path + ".bak", "y");
        EXPECT_EQ(restart(), "damaged, started from defaults " + defaults + " 0") << at;
        EXPECT_EQ(read_file(path + ".bad" + std::to_string(std::min(at++, 9))), image) << "the last is replaced";
    }
    EXPECT_EQ(read_file(path + ".bad"), damaged);
}

TEST_F(Safe_store, What_cannot_be_read_or_is_no_file_is_left_alone) {
    tree.set_all();
    program.save();
    const std::string good = read_file(path);
    const Temporary_folder elsewhere; // no device of the system, which a fault would write over
    mkfifo(elsewhere.file("fifo").c_str(), 0600);
    const std::tuple<const char*, std::function<void(const std::string&)>, int, int> table[] = {
        {"Is a directory", [](const std::string& p) { fs::create_directory(p); }, 0, 0},
        {"Not a regular file", [](const std::string& p) { mkfifo(p.c_str(), 0600); }, 0, 0},
        {"Not a regular file", [&](const std::string& p) { fs::create_symlink(elsewhere.file("fifo"), p); }, 0, 0},
        {"Too many levels of symbolic links", [](const std::string& p) { fs::create_symlink(p, p); }, 0, 0},
        {"File too large", [](const std::string& p) { write_file(p, std::string((1 << 20) + 1, 'x')); }, 0, 0},
        {"Too many open files", nullptr, EMFILE, 0},
        {"Input/output error", nullptr, 0, EIO}};
    for (const std::string generation : {"", ".bak: "}) {
        for (const auto& [reason, make, on_open, on_read] : table) {
            const std::string place = path + generation.substr(0, 4), refusal = texts(unreadable, defaults, 0);
            for (const char* old : {"", ".bak"}) fs::remove_all(path + old);
            make ? make(place) : write_file(place, good);
            const auto before = all_files();
            Program fresh(path);
            Capture told(stderr);
            alarm(20); // for a FIFO that blocks
            open_error = on_open, read_error = on_read;
            EXPECT_EQ(fresh.load(), refusal) << place << reason;
            EXPECT_TRUE(!generation.empty() || program.save() == unreadable) << "nor do others write over it";
            open_error = read_error = 0;
            fresh.tree.speed.set(77);
            EXPECT_VALUES(texts(unreadable, unreadable), fresh.save(), fresh.save_changes()) << "it has not been read";
            alarm(0);
            const std::string line = "NV_safe_store " + path + ": " + unreadable + ": " + generation + reason + "\n";
            EXPECT_EQ(told.text(), line + line + line + (generation.empty() ? line : ""));
            EXPECT_EQ(all_files(), before) << line;
            if (make) fs::remove_all(place);
            EXPECT_TRUE(make || fresh.load().substr(0, 4) == (generation.empty() ? "load" : "fell"));
            EXPECT_EQ(fresh.save(), "saved") << line;
        }
    }
}

TEST_F(Safe_store, The_file_keeps_its_place_and_its_rights) {
    fs::create_directory(folder.file("data"));
    const std::string real = folder.file("data/real");
    fs::create_symlink("data/link", path);
    fs::create_symlink(real, folder.file("data/link"));
    tree.set_all();
    EXPECT_EQ(program.save(), "saved") << "the file is not there yet";
    EXPECT_EQ(fs::status(real).permissions(), fs::perms(0600)) << "nobody else's";
    const std::string old = all(fell_back);
    const bool root = chown(real.c_str(), 1234, 1235) == 0;
    chmod(real.c_str(), 0640);
    EXPECT_EQ(program.save(), "saved");
    tree.speed.set(3);
    EXPECT_EQ(program.save_changes(), "saved");
    struct stat s;
    ASSERT_EQ(stat(real.c_str(), &s), 0);
    EXPECT_EQ(s.st_mode & 07777, 0640u);
    EXPECT_TRUE(!root || (s.st_uid == 1234 && s.st_gid == 1235));
    write_file(real, "x");
    EXPECT_VALUES(old + " x", restart(), read_file(real + ".bad"));
    EXPECT_VALUES("saved " + all(), program.save(), restart());
    EXPECT_EQ(fs::status(real).permissions(), fs::perms(0640)) << "those of the generation before";
    EXPECT_VALUES("true true 2", fs::is_symlink(path), fs::exists(real + ".bak"), all_files().size())
        << "all else is in the other folder";
}

TEST_F(Safe_store, Changes_go_behind_what_is_there_not_where_it_ended_before) {
    tree.speed.set(3);
    for (const bool by_another : {false, true}) {
        ASSERT_EQ(program.save(), "saved");
        tree.set_all();
        Program longer(path);
        longer.tree.set_all();
        if (!by_another) failing_sync = syncs + 2; // the folder's: the new file is in place already
        ASSERT_EQ((by_another ? longer : program).save(), by_another ? "saved" : "failed");
        tree.wheel.offset.set(99);
        EXPECT_VALUES("saved " + all(), program.save_changes(), restart()) << by_another;
        tree.set_default(true);
        tree.speed.set(4);
    }
}

TEST_F(Safe_store, The_file_keeps_to_its_budget) {
    tree.set_all();
    program.save();
    size_t largest = 0;
    for (int i = 0; i < 1500; ++i) {
        tree.wheel.offset.set(static_cast<short>(i));
        ASSERT_EQ(program.save_changes(), "saved");
        largest = std::max(largest, static_cast<size_t>(fs::file_size(path)));
    }
    EXPECT_VALUES("true true " + all(), largest <= 16384u, largest > 16384u - 100, restart()) << largest;
}

TEST_F(Safe_store, Records_that_the_program_no_longer_knows_are_left_out) {
    const auto short_value = [](int id, int v) { return value(8, id, bytes({v, 0})); };
    const auto section = [](int v) { return value(5, 1, bytes({v, 0})); };
    const std::string speed = value(10, 2, bytes({0, 0, 0x20, 0x40})), wheel = frame(1, 3, short_value(0x0102, 7)),
                      list = section(1) + section(2) + section(3),
                      unknown = frame(1, 77, frame(1, 3, short_value(1, 1)) + speed);
    std::string deep;
    for (int i = 0; i < 100; ++i) deep = frame(1, 77, deep);
    // What comes of records: the settings, and how many records were dropped.
    const std::pair<std::string, std::vector<std::string>> table[] = {
        {"{2.5,{true,7},{0,0,0},} 0", {speed + wheel}},
        {"{2.5,{true,7},{0,0,0},} 1", {short_value(9, 1) + speed + wheel, unknown + speed + wheel}},
        {"{2.5,{true,-2},{0,0,0},} 1",
         {value(14, 9, bytes({1, 3, 0})) + speed, value(0x25, 9, bytes({2, 1, 0, 2, 0})) + speed, deep + speed}},
        {"{1.5,{true,7},{0,0,0},} 1", // of another type, and a container that became a value
         {value(9, 2, bytes({1, 0, 0, 0})) + wheel, frame(1, 2, "") + wheel}},
        {"{2.5,{false,-2},{0,0,0},} 1", {frame(1, 3, value(5, 0x0102, "xx") + value(2, 1, bytes({0}))) + speed}},
        {"{1.5,{true,-2},{1,2,3},} 0", {frame(13, 4, list)}},
        {"{1.5,{true,-2},{1,2,3},} 1", // a list that shrank, and with another in it
         {frame(13, 4, list + section(4)), frame(13, 4, short_value(5, 1) + list)}},
        {"{2.5,{true,-2},{0,0,0},} 2", {frame(13, 4, section(1) + section(2)) + speed}}}; // that grew
    for (const auto& [expected, all_records] : table) {
        for (const std::string& records : all_records) {
            write_file(path, frame(0, 1, records));
            EXPECT_EQ(restart(), "loaded " + expected) << testing::PrintToString(records.substr(0, 40));
        }
    }
    write_file(path, frame(0, 1, wheel) + frame(0, 1, frame(1, 3, unknown)));
    EXPECT_EQ(restart(), "loaded {1.5,{true,7},{0,0,0},} 1") << "in a journal";
    // Elements that differ load in their order, though the tree alone could not.
    struct Mixed : NV_root {
        Mixed() : NV_root(nullptr, 1, "mixed") {}
        struct List : NV_container {
            explicit List(NV_root* r) : NV_container(r, r, 2, "list") {}
            item_type_t get_type() const override { return item_container; }
            NV_uint8 a{this, 1, "a"}, b{this, 2, "b"}, c{this, 1, "c"};
        } list{this};
    } one, other;
    one.list._from_string("{10,20,30}");
    EXPECT_EQ(NV_safe_store(one, path.c_str()).save(), Safe_result::saved);
    EXPECT_EQ(NV_safe_store(other, path.c_str()).load(), Safe_result::loaded);
    EXPECT_EQ(text_form(other), "{{10,20,30}}");
}

TEST_F(Safe_store, A_failed_save_says_why_and_is_made_up_for_by_the_next) {
    waiter_descriptor waiter; // there are no module ids: every post fails, and nothing above learns of the change
    tree.wheel.offset.register_waiter(&waiter, 1, false);
    tree.set_all();
    ASSERT_EQ(program.save(), "saved");
    const rlim_t size = read_file(path).size();
    rlimit unlimited;
    getrlimit(RLIMIT_FSIZE, &unlimited);
    signal(SIGXFSZ, SIG_IGN);
    for (const bool complete : {false, true}) {
        tree.wheel.offset.set(complete ? 70 : 80);
        const rlimit limit = {complete ? size / 2 : size + 5, unlimited.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        const std::string result = complete ? program.save() : program.save_changes();
        setrlimit(RLIMIT_FSIZE, &unlimited);
        EXPECT_VALUES("disk full saved " + all(), result, program.save_changes(), restart());
    }
    EXPECT_EQ(NV_safe_store(tree, folder.file("none/settings").c_str()).save(), Safe_result::failed);
    struct Stubborn : NV_uint8 {
        using NV_uint8::NV_uint8;
        using NV_uint8::serialise;
        bool serialise(NV_iterator*) override { return false; }
    } stubborn(&tree, 90, "stubborn");
    tree.speed.set(3);
    EXPECT_VALUES("failed 3", program.save(), tree.speed.get_flags()) << "it stays changed";
    EXPECT_NE(quiet.text().find("/settings: disk full: File too large\n"), std::string::npos);
}

TEST_F(Safe_store, Any_text_verifies_as_a_checksummed_file) {
    std::string loaded;
    const auto load = [&] { return load_checksummed(path.c_str(), loaded); };
    for (const size_t n : {0, 1, 3, 4, 251, 252, 255, 256, 509, 511}) {
        for (size_t zero = 0; zero <= 5 && zero <= n; ++zero) { // that many places from the end; 0: none
            std::string text(n, 'x');
            if (zero > 0) text[n - zero] = 0;
            EXPECT_EQ(save_checksummed(path.c_str(), text), Safe_result::saved);
            EXPECT_EQ(load(), Safe_result::loaded) << n << ' ' << zero;
            EXPECT_EQ(loaded, text + std::string(loaded.size() - n, '\n'));
        }
    }
    for (const size_t n : {10, 510}) { // whatever the stream reads is good here too
        for (const char* behind : {"", "\n", "\r\n  ", "12345"}) {
            save_checksummed(path.c_str(), std::string(n, 'x'));
            std::string bytes = read_file(path);
            for (size_t i = n + 8; i < bytes.size(); ++i) bytes[i] = static_cast<char>(tolower(bytes[i]));
            write_file(path, bytes + behind);
            const bool good = File_checksummed_data_stream().open_read(path.c_str());
            EXPECT_EQ(good, strlen(behind) < 5) << n << behind;
            EXPECT_EQ(load(), good ? Safe_result::loaded : Safe_result::fell_back);
            EXPECT_EQ(loaded, std::string(n, 'x'));
        }
    }
}

} // namespace
