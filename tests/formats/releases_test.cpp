// SPDX-License-Identifier: MIT
// The folders beside this file hold what each release with a format of its own wrote: settings.nv (an image and a
// change behind it), gain.txt (checksummed), codes.txt (trouble codes) and H0.dat (history). When the last test fails
// for good reason, the formats have changed: the folder stays, and what the test wrote becomes that of the new release.
#include "diagnostics/Driven_manager.h"
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_pointer.h"
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_safe_store.h"
#include "glue/NV_store/NV_text.h"
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "platform/pcf_host.h"
#include "support/test.h"

namespace {

using namespace NV_store;
namespace fs = std::filesystem;

const char* const files[] = {"settings.nv", "gain.txt", "codes.txt", "H0.dat"};

/// What is saved: all but this setting is the same in the image and in the change behind it.
const std::string pulses = "wheel/pulses=", others = "\nwheel/radius=0.75\nmetric=true\ngrade=66\ngears=18\n"
                                                     "starts=3000000000\ntrim=-3\noffset=-300\nposition=-70000\n"
                                                     "width=12.5\nserial=81985529216486895\n"
                                                     "balance=-5000000000\nshown=wheel/radius\n";

struct Machine : NV_root {
    Machine() : NV_root(nullptr, 1, "machine") {}
    struct Wheel : NV_container {
        explicit Wheel(NV_root* root) : NV_container(root, root, 2, "wheel") {}
        NV_uint16 pulses{this, 1, "pulses"};
        NV_float radius{this, 2, "radius"};
    } wheel{this};
    NV_bool metric{this, 3, "metric"};
    NV_char grade{this, 4, "grade"};
    NV_uint8 gears{this, 5, "gears"};
    NV_uint32 starts{this, 6, "starts"};
    NV_int8 trim{this, 7, "trim"};
    NV_int16 offset{this, 8, "offset"};
    NV_int32 position{this, 9, "position"};
    NV_double width{this, 10, "width"};
    NV_uint64 serial{this, 11, "serial"};
    NV_int64 balance{this, 12, "balance"};
    NV_pointer shown{this, 13, "shown"};
};

/// A folder mounted as the medium, in which the files of a release already lie.
struct Medium {
    explicit Medium(const fs::path& release) {
        for (const char* file : files)
            if (!release.empty()) fs::copy(release / file, folder.path); // the originals stay as they are
        EXPECT_TRUE(Pcf_host::mount(folder.path.c_str(), 1 << 20));
    }
    ~Medium() { Pcf_host::unmount(); }
    const Temporary_folder folder;
};

/// The stores of a program that starts there.
struct Program : Medium {
    explicit Program(const fs::path& release = {}) : Medium(release) {}
    Machine machine;
    NV_safe_store store{machine, folder.file("settings.nv").c_str()};
    Driven_manager manager;
    File_checksummed_data_stream gain;
};

TEST(Releases, each_version_s_files_are_read) {
    for (const auto& release : fs::directory_iterator(RELEASES)) {
        if (!release.is_directory()) continue;
        SCOPED_TRACE(release.path());
        Program p(release.path());
        EXPECT_VALUES("loaded 0", to_text(p.store.load()), p.store.get_dropped());
        EXPECT_EQ(export_text(p.machine), pulses + "121" + others);
        EXPECT_TRUE(p.gain.open_read(p.folder.file("gain.txt").c_str()));

        struct : Diagnostic_history {
            void output(unsigned char src, unsigned short a, unsigned short b, unsigned s, unsigned short ms) override {
                text += texts(src, a, b, s, ms) + "\n";
            }
            bool check_ready() override { return true; }
            std::string text;
        } replayed;
        EXPECT_EQ(p.manager.keep_codes_in(p.folder.file("codes.txt").c_str()), Safe_result::loaded);
        EXPECT_TRUE(p.manager.request_history(&replayed));
        while (!replayed.is_done()) p.manager.turn();
        EXPECT_EQ(replayed.text, "128 17 1201 1700000000 500\n254 287 1234 1700000000 500\n");
    }
}

TEST(Releases, what_is_written_now_are_the_bytes_of_the_newest_folder) {
    const Manual_clock clock(1700000000, 500);
    Program p;
    EXPECT_EQ(import_text(p.machine, pulses + "120" + others).error, "");
    EXPECT_EQ(p.store.save(), Safe_result::saved);
    p.machine.wheel.pulses.set(121);
    EXPECT_EQ(p.store.save_changes(), Safe_result::saved);
    ASSERT_TRUE(p.gain.open_write(p.folder.file("gain.txt").c_str()));
    p.gain._write(reinterpret_cast<const unsigned char*>("gain = 0.75"), 11);
    p.gain.close_write();
    p.manager.keep_codes_in(p.folder.file("codes.txt").c_str());
    p.manager.log_error(0x80, 17, 1201);
    p.manager.set_active(1234, 31);
    p.manager.turn();
    p.manager.save_codes();
    fs::path newest;
    for (const auto& release : fs::directory_iterator(RELEASES))
        if (release.is_directory()) newest = std::max(newest, release.path());
    for (const char* file : files) EXPECT_EQ(read_file(p.folder.file(file)), read_file(newest / file)) << file;
}

} // namespace
