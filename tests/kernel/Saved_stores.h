// SPDX-License-Identifier: MIT
#pragma once
#include "diagnostics/Driven_manager.h"
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_safe_store.h"
#include "platform/pcf_host.h"
#include "support/test.h"

/// What a machine keeps on its medium, as stores whose whole state follows from a version number: each save goes from
/// one version to the next, and a fresh process can tell which version is there.
namespace Saved {

struct Store {
    virtual ~Store() = default;
    virtual bool save(int version) = 0; ///< over the version before
    virtual bool holds(int version) = 0;
    bool whole = true; ///< the last load said that nothing was lost
};

/// What a program knows of a store: the last version that was saved, and the one whose save began.
struct Account {
    int done = 0, begun = 0;
    /// What it must hold after a cut or a failure: one of the two, which is the saved one from now on.
    bool settle(Store& s) {
        if (begun != done && s.holds(begun)) return done = begun, true;
        begun = done;
        return s.holds(done);
    }
};

/// A tree that is saved whole at every eighth version, and else by an eighth of its numbers. Half of them are in a
/// group.
struct Tree : NV_store::NV_root {
    Tree() : NV_root(nullptr, 1, "tree") {
        for (unsigned short i = 0; i < 64; ++i)
            numbers.emplace_back(i % 2 ? &group : static_cast<NV_container*>(this), i, "number");
    }
    int get(int i) const { return numbers[static_cast<size_t>(i)].get(); }
    void set(int version) {
        for (int i = 0; i < 64; ++i)
            if (version % 8 == 0 || i % 8 == version % 8) numbers[static_cast<size_t>(i)].set(version);
    }
    bool is(int version) const {
        const int whole = version - version % 8;
        for (int i = 0; i < 64; ++i)
            if (get(i) != whole + (i % 8 <= version % 8 ? i % 8 : 0)) return false;
        return true;
    }
    NV_store::NV_container group{this, this, 99, "group"};
    std::deque<NV_store::NV_int32> numbers;
};

struct Settings : Store {
    explicit Settings(const std::string& folder) : store(tree, (folder + "/settings").c_str()) {
        whole = NV_store::is_good(store.load());
    }
    bool save(int version) override {
        tree.set(version);
        return (version % 8 == 0 ? store.save() : store.save_changes()) == NV_store::Safe_result::saved;
    }
    bool holds(int version) override { return tree.is(version); }

    Tree tree;
    NV_store::NV_safe_store store;
};

/// 100 to 2100 bytes that tell the version in each line.
inline std::string text_of_version(int version) {
    std::string text;
    while (text.size() < 100u + static_cast<unsigned>(version) * 397u % 2000u)
        text += "version " + std::to_string(version) + "\n";
    return version == 0 ? "" : NV_store::padded_text(text);
}

struct Safe_text : Store {
    explicit Safe_text(const std::string& folder) : path(folder + "/text") {}
    bool save(int version) override {
        return NV_store::save_checksummed(path.c_str(), text_of_version(version)) == NV_store::Safe_result::saved;
    }
    bool holds(int version) override {
        std::string text;
        whole = NV_store::is_good(NV_store::load_checksummed(path.c_str(), text));
        return text == text_of_version(version);
    }
    const std::string path;
};

/// A file of the mounted flash store that grows by a block with each version, and is removed at every fiftieth.
struct Flash_file : Store {
    explicit Flash_file(const std::string&) {}
    static std::string block(int v) { return text_of("%019d\n%019d\n%019d\n", v, v, v); }
    bool save(int version) override {
        if (version % 50 == 0) return pcfRemove("log") == PCF_DONE;
        if ((pcfExists("log") ? pcfOpenWrite("log", -1) : pcfCreateWrite("log", -1)) != PCF_DONE) return false;
        const std::string b = block(version);
        const bool written = pcfWrite(b.data(), 20, -1) == 20 && pcfWrite(b.data() + 20, 40, -1) == 40;
        return pcfCloseWrite(-1) && written;
    }
    bool holds(int version) override {
        std::string expected;
        for (int v = version - version % 50 + 1; v <= version; ++v) expected += block(v);
        char bytes[4000];
        PcfResult result = PCF_DONE;
        if (pcfOpenRead("log", 0, 0) != PCF_DONE) return expected.empty() && !pcfExists("log");
        const int n = pcfRead(bytes, sizeof bytes, &result, 0);
        pcfCloseRead(0);
        return std::string(bytes, static_cast<size_t>(n)) == expected;
    }
};

/// The history of faults in the mounted flash store. It keeps the latest records, so a version is the last of them.
struct Faults : Store, Diagnostic_history {
    explicit Faults(const std::string&) {}
    bool save(int version) override { return manager.record(static_cast<unsigned short>(version)); }
    bool holds(int version) override {
        got.clear();
        manager.request_history(this);
        manager.turn();
        const unsigned n = static_cast<unsigned>(got.size()), newest = static_cast<unsigned>(version);
        bool all = n >= std::min(newest, 50u); // how many more, depends on where programs began anew
        for (unsigned i = 0; i < n; ++i) all = all && got[i] == ((newest - (n - 1 - i)) & 0xFFFF);
        return all;
    }
    void output(unsigned char, unsigned short, unsigned short version, unsigned, unsigned short) override {
        got.push_back(version);
    }
    bool check_ready() override { return true; }

    std::vector<unsigned> got;
    Driven_manager manager{20 * 17}; // records in a file, of so many bytes
};

enum Kind_of_store { settings, safe_text, flash_file, faults };
template <class S>
std::unique_ptr<Store> open(const std::string& folder) {
    return std::make_unique<S>(folder);
}
const struct {
    const char* name;
    std::unique_ptr<Store> (*open)(const std::string& folder); ///< as a program that has just started has it
} kinds[] = {{"settings", open<Settings>},
             {"checksummed file", open<Safe_text>},
             {"flash store", open<Flash_file>},
             {"fault history", open<Faults>}};

inline bool mount(const std::string& folder) { return Pcf_host::mount(folder.c_str(), 1000000); }

} // namespace Saved
