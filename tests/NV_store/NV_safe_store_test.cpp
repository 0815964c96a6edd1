// SPDX-License-Identifier: MIT
// What the power-cut test, which cuts and damages every byte, cannot tell: results, names of files, and what is
// dropped.
#include "NV_store/Image_builder.h"
#include "NV_store/Settings_fixture.h"
#include "glue/NV_store/NV_safe_store.h"
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "stress/faulty_calls.h"
#include "support/test.h"

using namespace NV_store;
namespace fs = std::filesystem;
using namespace Image;

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
    Safe_store() {
        Faulty::watch = [this] { EXPECT_FALSE(tree.is_locked()) << "while the medium is busy"; };
        crc(""); // the first one may ask the system for the processor, which is a file to it
        Faulty::arm(Faulty::none, 0);
    }
    ~Safe_store() override { Faulty::armed = false; }
    std::string all(const char* result = "loaded") { return texts(result, tree.text(), 0); }
    std::string restart() { return Program(path).load(); }
    /// What a change of any file in the folder, its bytes, its rights or its place would change.
    std::string listing() const {
        const Child_result seen = run_shell("cd " + folder.path +
                                            " && ls -lic --time-style=full-iso && "
                                            "find . -type f -exec cksum {} +");
        EXPECT_EQ(seen.end(), "0 ");
        return seen.out;
    }

    Temporary_folder folder{Temporary_folder::quick};
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
    EXPECT_VALUES("saved nothing to save", program.save(), program.save_changes());
    tree.sections.middle.set(55);
    EXPECT_VALUES("saved " + all(), program.save_changes(), restart()) << "a list is saved whole";
    fs::remove(path);
    tree.speed.set(1);
    EXPECT_VALUES("saved " + all(), program.save_changes(), restart()) << "without a file to append to";
    write_file(path, frame(0, 1, value(10, 2, bytes({0, 0, 0x20, 0x40}))));
    EXPECT_EQ(program.load(), "loaded {2.5,{true,-2},{0,0,0},} 0") << "replaces every setting";
    program.save();
    Program another(path);
    another.tree.set_all();
    another.save();
    tree.speed.set(9);
    EXPECT_VALUES("saved loaded {9,{false,7},{10,20,30},wheel/offset} 0", program.save_changes(), restart())
        << "behind what is there now";
    size_t largest = 0;
    for (short i = 0; i < 1500; ++i) { // a change takes 30 bytes
        tree.wheel.offset.set(i);
        ASSERT_EQ(program.save_changes(), "saved");
        largest = std::max(largest, static_cast<size_t>(fs::file_size(path)));
    }
    EXPECT_VALUES("true true " + all(), largest <= 16384u, largest > 16384u - 30, restart()) << largest;
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
    const std::pair<const char*, std::function<void(const std::string&)>> table[] = {
        {"Is a directory", [](const std::string& p) { fs::create_directory(p); }},
        {"Not a regular file", [](const std::string& p) { mkfifo(p.c_str(), 0600); }},
        {"Too many levels of symbolic links", [](const std::string& p) { fs::create_symlink(p, p); }},
        {"File too large", [](const std::string& p) { write_file(p, std::string((1 << 20) + 1, 'x')); }},
        {"Input/output error", nullptr}};
    for (const std::string generation : {"", ".bak: "}) {
        for (const auto& [reason, make] : table) {
            const std::string place = path + generation.substr(0, 4);
            for (const char* old : {"", ".bak"}) fs::remove_all(path + old);
            make ? make(place) : write_file(place, good);
            const std::string before = listing();
            Program fresh(path);
            Capture told(stderr);
            alarm(20); // for a FIFO that blocks
            // What is there but cannot be read, while the folder opens.
            const auto disturb = [&, m = make] { Faulty::arm(m ? Faulty::none : Faulty::error_for_ever, 2, EIO); };
            disturb();
            EXPECT_EQ(fresh.load(), texts(unreadable, defaults, 0)) << place << reason;
            disturb();
            EXPECT_TRUE(!generation.empty() || program.save() == unreadable) << "nor do others write over it";
            Faulty::arm(Faulty::none, 0);
            fresh.tree.speed.set(77);
            EXPECT_VALUES(texts(unreadable, unreadable), fresh.save(), fresh.save_changes()) << "it has not been read";
            alarm(0);
            const std::string line = "NV_safe_store " + path + ": " + unreadable + ": " + generation + reason + "\n";
            EXPECT_EQ(told.text(), line + line + line + (generation.empty() ? line : ""));
            EXPECT_EQ(listing(), before) << line;
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
    EXPECT_VALUES("saved true", program.save(), fs::status(real).permissions() == fs::perms(0600)) << "nobody else's";
    const std::string old = all(fell_back);
    const bool root = chown(real.c_str(), 1234, 1235) == 0;
    chmod(real.c_str(), 0640);
    EXPECT_EQ(program.save(), "saved");
    struct stat s;
    EXPECT_TRUE(stat(real.c_str(), &s) == 0 && (s.st_mode & 07777) == 0640 &&
                (!root || (s.st_uid == 1234 && s.st_gid == 1235)));
    write_file(real, "x");
    EXPECT_VALUES(old + " x", restart(), read_file(real + ".bad"));
    EXPECT_VALUES("saved " + all(), program.save(), restart());
    EXPECT_EQ(fs::status(real).permissions(), fs::perms(0640)) << "those of the generation before";
    EXPECT_VALUES("true true 2", fs::is_symlink(path), fs::exists(real + ".bak"),
                  std::distance(fs::directory_iterator(folder.path), {}))
        << "all else is in the other folder";
}

TEST_F(Safe_store, Records_that_the_program_no_longer_knows_are_left_out) {
    const auto short_value = [](int id, int v) { return value(8, id, bytes({v, 0})); };
    const auto section = [](int v) { return value(5, 1, bytes({v, 0})); };
    const std::string speed = value(10, 2, bytes({0, 0, 0x20, 0x40})), wheel = frame(1, 3, short_value(0x0102, 7)),
                      list = section(1) + section(2) + section(3),
                      unknown = frame(1, 77, frame(1, 3, short_value(1, 1)) + speed);
    // What comes of records: the settings, and how many records were dropped.
    const std::pair<std::string, std::vector<std::string>> table[] = {
        {"{2.5,{true,7},{0,0,0},} 1", {short_value(9, 1) + speed + wheel, unknown + speed + wheel}},
        {"{2.5,{true,-2},{0,0,0},} 1",
         {value(14, 9, bytes({1, 3, 0})) + speed, value(0x25, 9, bytes({2, 1, 0, 2, 0})) + speed}},
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
    struct List : NV_container {
        explicit List(NV_root* r) : NV_container(r, r, 2, "list") {}
        item_type_t get_type() const override { return item_container; }
        NV_uint8 a{this, 1, "a"}, b{this, 2, "b"}, c{this, 1, "c"};
    };
    NV_root one(nullptr, 1, "one"), other(nullptr, 1, "other");
    List saved(&one), loaded(&other);
    saved._from_string("{10,20,30}");
    EXPECT_EQ(NV_safe_store(one, path.c_str()).save(), Safe_result::saved);
    EXPECT_EQ(NV_safe_store(other, path.c_str()).load(), Safe_result::loaded);
    EXPECT_EQ(text_form(loaded), "{10,20,30}");
}

TEST_F(Safe_store, A_failed_save_says_why_and_is_made_up_for_by_the_next) {
    waiter_descriptor waiter; // there are no module ids: every post fails, and nothing above learns of the change
    tree.wheel.offset.register_waiter(&waiter, 1, false);
    tree.set_all();
    ASSERT_EQ(program.save(), "saved");
    for (const bool complete : {false, true}) {
        std::set<std::string> results;
        bool failed = true;
        for (int n = 1; failed; ++n) { // each call, up to the last
            EXPECT_FALSE(tree.wheel.offset.set(static_cast<short>(100 * n + complete)));
            Faulty::arm(Faulty::error_once, n, ENOSPC);
            const std::string result = complete ? program.save() : program.save_changes();
            failed = Faulty::calls >= n;
            Faulty::arm(Faulty::none, 0);
            results.insert(result);
            EXPECT_EQ(program.save_changes(), result == "saved" ? "nothing to save" : "saved") << n;
            EXPECT_EQ(restart(), all()) << result << n;
        }
        EXPECT_EQ(results, (std::set<std::string>{"disk full", "saved"}));
    }
    EXPECT_EQ(NV_safe_store(tree, folder.file("none/settings").c_str()).save(), Safe_result::failed);
    struct Stubborn : NV_uint8 {
        using NV_uint8::NV_uint8;
        using NV_uint8::serialise;
        bool serialise(NV_iterator*) override { return false; }
    } stubborn(&tree, 90, "stubborn");
    tree.speed.set(3);
    EXPECT_VALUES("failed 3", program.save(), tree.speed.get_flags()) << "it stays changed";
    EXPECT_NE(quiet.text().find("/settings: disk full: No space left on device\n"), std::string::npos);
}

TEST_F(Safe_store, Any_text_verifies_as_a_checksummed_file) {
    std::string loaded;
    for (const size_t n : {0, 1, 3, 4, 251, 252, 255, 256, 509, 511}) {
        for (size_t zero = 0; zero <= 5 && zero <= n; ++zero) { // that many places from the end; 0: none
            std::string text(n, 'x');
            if (zero > 0) text[n - zero] = 0;
            EXPECT_EQ(save_checksummed(path.c_str(), text), Safe_result::saved);
            std::string bytes = read_file(path);
            std::transform(bytes.end() - 8, bytes.end(), bytes.end() - 8, tolower);
            write_file(path, bytes + (n > 3 ? "\r\n  " : "")); // whatever the stream reads is good here too
            EXPECT_TRUE(File_checksummed_data_stream().open_read(path.c_str())) << n << ' ' << zero;
            EXPECT_EQ(load_checksummed(path.c_str(), loaded), Safe_result::loaded) << n << ' ' << zero;
            EXPECT_EQ(loaded, text + std::string(loaded.size() - n, '\n'));
            write_file(path, bytes + "12345");
            EXPECT_FALSE(File_checksummed_data_stream().open_read(path.c_str())) << n << ' ' << zero;
            EXPECT_EQ(load_checksummed(path.c_str(), loaded), Safe_result::damaged) << n << ' ' << zero;
        }
    }
}

} // namespace
