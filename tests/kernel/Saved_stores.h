// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_file_iterator.h"
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_safe_store.h"
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diner/Diner_info_list.h"
#include "platform/pcf_host.h"
#include "support/Temporary_folder.h"
#include <array>
#include <deque>
#include <memory>

/// What a machine keeps on its medium, as stores whose whole state follows from a version number: each save goes from
/// one version to the next, and a fresh process can tell which version is there.
namespace Saved {

struct Store {
    explicit Store(const char* n) : name(n) {}
    virtual ~Store() = default;
    virtual bool save(int version) = 0; ///< over the version before
    virtual bool holds(int version) = 0;
    virtual std::string found() { return "something else"; } ///< what is there instead
    const char* const name;
    bool whole = true; ///< the last load said that nothing was lost
};

/// A tree that is saved whole at every eighth version, and else by an eighth of its numbers.
struct Tree : NV_store::NV_root {
    Tree() : NV_root(nullptr, 1, "tree") {
        for (unsigned short i = 0; i < 64; ++i) numbers.emplace_back(this, i, "number");
    }
    static int value(int i, int version) {
        const int whole = version - version % 8;
        return i % 8 >= 1 && i % 8 <= version % 8 ? whole + i % 8 : whole;
    }
    void set(int version) {
        for (int i = 0; i < 64; ++i)
            if (version % 8 == 0 || i % 8 == version % 8) numbers[static_cast<size_t>(i)].set(version);
    }
    bool is(int version) const {
        for (int i = 0; i < 64; ++i)
            if (numbers[static_cast<size_t>(i)].get() != value(i, version)) return false;
        return true;
    }
    std::deque<NV_store::NV_int32> numbers;
};

class Settings : public Store {
public:
    explicit Settings(const std::string& folder) : Store("settings"), _path(folder + "/settings") {
        whole = NV_store::is_good(_store.load());
    }
    bool save(int version) override {
        _tree.set(version);
        return (version % 8 == 0 ? _store.save() : _store.save_changes()) == NV_store::Safe_result::saved;
    }
    bool holds(int version) override { return _tree.is(version); }

private:
    const std::string _path;
    Tree _tree;
    NV_store::NV_safe_store _store{_tree, _path.c_str()};
};

/// 100 to 2100 bytes that tell the version in each line.
inline std::string text_of_version(int version) {
    std::string text;
    while (text.size() < 100u + static_cast<unsigned>(version) * 397u % 2000u)
        text += "version " + std::to_string(version) + "\n";
    return NV_store::padded_text(text);
}

class Safe_text : public Store {
public:
    explicit Safe_text(const std::string& folder) : Store("checksummed file"), _path(folder + "/text") {}
    bool save(int version) override {
        return NV_store::save_checksummed(_path.c_str(), text_of_version(version)) == NV_store::Safe_result::saved;
    }
    bool holds(int version) override {
        std::string text;
        whole = NV_store::is_good(NV_store::load_checksummed(_path.c_str(), text));
        return text == (version == 0 ? "" : text_of_version(version));
    }

private:
    const std::string _path;
};

/// A file that grows by a block with each version, and is removed at every fiftieth.
class Flash_file : public Store {
public:
    Flash_file() : Store("flash store") {}
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

private:
    static std::string block(int version) {
        char text[80];
        snprintf(text, sizeof text, "%019d\n%019d\n%019d\n", version, version, version);
        return text;
    }
};

/// The history of faults, driven without its thread. It keeps the latest records, so a version is the last of them.
class Faults : public Store {
public:
    Faults() : Store("fault history") { _manager.init(Diner_info_list::get(), nullptr, 0); }
    bool save(int version) override {
        const unsigned before = _manager.records_written();
        _manager.lock(-1);
        waiter_event e(_manager.module_id(), 1, static_cast<event_word_t>(unsigned(version) << 16));
        _manager.handle_event(e);
        _manager.unlock();
        return _manager.records_written() > before;
    }
    bool holds(int version) override {
        const std::vector<unsigned> got = replay();
        const int least = std::min(version, 50); // how many more, depends on where programs began anew
        if (static_cast<int>(got.size()) < least) return false;
        for (size_t i = 0; i < got.size(); ++i)
            if (got[i] != ((static_cast<unsigned>(version) - (got.size() - 1 - i)) & 0xFFFF)) return false;
        return true;
    }
    std::string found() override {
        std::string text;
        for (const unsigned n : replay()) text += std::to_string(n) + " ";
        return text;
    }

private:
    static constexpr int records_in_a_file = 20;
    struct Manager : Diagnostics {
        Manager() : Diagnostics("H", records_in_a_file * 17) {}
        ~Manager() override { terminate(true); }
        using Diagnostics::handle_event;
    };
    struct Sink : Diagnostic_history {
        void output(unsigned char, unsigned short, unsigned short b, unsigned, unsigned short) override {
            got.push_back(b);
        }
        bool check_ready() override { return true; }
        std::vector<unsigned> got;
    };
    std::vector<unsigned> replay() {
        Sink sink;
        _manager.request_history(&sink);
        _manager.lock(-1);
        _manager.process_history();
        _manager.unlock();
        return sink.got;
    }

    Manager _manager;
};

/// Saves that promise nothing, to show what they lose: a file that is written over, and the same with the checksum that
/// at least tells.
class Plain_text : public Store {
public:
    explicit Plain_text(const std::string& folder) : Store("plain file"), _path(folder + "/plain") {}
    bool save(int version) override {
        write_file(_path, text_of_version(version));
        return read_file(_path) == text_of_version(version);
    }
    bool holds(int version) override { return read_file(_path) == (version == 0 ? "" : text_of_version(version)); }

private:
    const std::string _path;
};

class Plain_checksummed : public Store {
public:
    explicit Plain_checksummed(const std::string& folder) : Store("checksummed in place"), _path(folder + "/inplace") {}
    bool save(int version) override {
        File_checksummed_data_stream s;
        const std::string text = text_of_version(version);
        return s.open_write(_path.c_str()) &&
               s._write(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned>(text.size())) ==
                   text.size() &&
               s.close_write();
    }
    bool holds(int version) override {
        const std::string expected = version == 0 ? "" : text_of_version(version), all = read_file(_path);
        File_checksummed_data_stream s;
        return version == 0 ? all.empty()
                            : s.open_read(_path.c_str()) && all.compare(0, expected.size(), expected) == 0;
    }

private:
    const std::string _path;
};

/// The tree's own save, written over in place.
class Plain_settings : public Store {
public:
    explicit Plain_settings(const std::string& folder) : Store("settings in place"), _it((folder + "/tree").c_str()) {
        if (_it.set_mode(NV_store::NV_iterator::mode_read) == 0) _tree.deserialise(&_it);
    }
    bool save(int version) override {
        for (int v = version - version % 8; v <= version; ++v) _tree.set(v);
        return _it.set_mode(NV_store::NV_iterator::mode_write) == 0 && _tree.serialise(&_it) &&
               _it.set_mode(NV_store::NV_iterator::mode_closed) == 0;
    }
    bool holds(int version) override { return _tree.is(version); }

private:
    Tree _tree;
    NV_store::NV_file_iterator _it;
};

constexpr size_t num_safe = 4, num_stores = 7;
using Stores = std::array<std::unique_ptr<Store>, num_stores>;

/// All of a folder, as a program that has just started has them: the safe ones first.
inline Stores open_all(const std::string& folder) {
    if (!Pcf_host::mount(folder.c_str(), 1000000)) return {};
    return {std::make_unique<Settings>(folder),      std::make_unique<Safe_text>(folder),
            std::make_unique<Flash_file>(),          std::make_unique<Faults>(),
            std::make_unique<Plain_text>(folder),    std::make_unique<Plain_checksummed>(folder),
            std::make_unique<Plain_settings>(folder)};
}

} // namespace Saved
