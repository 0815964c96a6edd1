// SPDX-License-Identifier: MIT
#include "glue/NV_store/NV_safe_store.h"
#include "glue/NV_store/NV_file_iterator.h"
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_scan.h"
#include <algorithm>
#include <cstring>
#include <optional>

namespace NV_store {
namespace {

/// Takes what a save writes; never runs out of room.
class Collector : public NV_iterator {
public:
    Collector(std::string& bytes, modes_t m) : _bytes(bytes) { mode = m; }
    bool push_bytes(unsigned char* data, int n) override {
        if (n < 0) return false;
        sum_unseen();
        const size_t used = size(), more = static_cast<size_t>(n);
        if (used + more > _bytes.size()) _bytes.resize(std::max(2 * (used + more), size_t{NV_file_iterator::budget}));
        memcpy(&_bytes[used], data, more);
        auto* const begin = reinterpret_cast<unsigned char*>(_bytes.data());
        _next = begin + used + more;
        _window_end = begin + _bytes.size();
        return true;
    }
    bool pop_bytes(unsigned char*, int) override { return false; }
    bool peek_bytes(unsigned char*, int) override { return false; }
    /// All was written: cut what is left of the memory.
    void finish() { _bytes.resize(size()); }

private:
    size_t size() const {
        return _next ? static_cast<size_t>(_next - reinterpret_cast<unsigned char*>(_bytes.data())) : 0;
    }
    std::string& _bytes;
};

/// Hands a load the bytes of an image.
class Image_reader : public NV_iterator {
public:
    explicit Image_reader(std::string& bytes) {
        mode = mode_read;
        _next = reinterpret_cast<unsigned char*>(bytes.data());
        _window_end = _next + bytes.size();
    }
    bool at_end() const { return _next == _window_end; }
    bool push_bytes(unsigned char*, int) override { return false; }
    bool peek_bytes(unsigned char* data, int n) override {
        if (n < 0 || n > _window_end - _next) return false;
        memcpy(data, _next, static_cast<size_t>(n));
        return true;
    }
    bool pop_bytes(unsigned char* data, int n) override {
        if (!peek_bytes(data, n)) return false;
        sum_unseen();
        _next += n;
        return true;
    }
};

/// Others may wait for a slow medium longer than for any lock, and that is no deadlock.
class KAV_SCOPED_CAPABILITY Turn {
public:
    explicit Turn(Mutex& m) KAV_ACQUIRE(m) KAV_NO_THREAD_SAFETY_ANALYSIS : _mutex(m) {
        if (m.is_locked()) m.lock(); // a setting calls back into the save: tells so, and ends the process
        while (!m.try_lock(1000)) {
        }
    }
    ~Turn() KAV_RELEASE() { _mutex.unlock(); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    Mutex& _mutex;
};

constexpr int changed = NV_item::changed_for_journal_1 | NV_item::changed_for_journal_2;

} // namespace

void settle_flags(NV_item& item, std::vector<unsigned char>* before) {
    if (before) before->push_back(item.get_flags());
    NV_container* const container = item.as_container();
    if (!container) return;
    int set = 0, clear = 0;
    for (NV_item* i = container->get_next_child(nullptr); i; i = container->get_next_child(i)) {
        settle_flags(*i, before);
        set |= i->get_flags() & changed;
        clear |= ~i->get_flags() & NV_item::not_loaded;
    }
    container->change_flags(set, clear);
    if (container->get_type() != Data_item::item_container) return;
    for (NV_item* i = container->get_next_child(nullptr); i; i = container->get_next_child(i))
        i->change_flags(set, clear);
}

NV_safe_store::NV_safe_store(NV_root& root, const char* path)
    : _root(root)
    , _file(
          path,
          [](void* store, std::string& bytes) KAV_NO_THREAD_SAFETY_ANALYSIS { // called by calls of the file, in a turn
              return static_cast<NV_safe_store*>(store)->check(bytes);
          },
          this) {}

/// Good is a file that begins with a whole image of this tree; behind it a torn journal is no reason to refuse it.
bool NV_safe_store::check(std::string& bytes) {
    _file_size = bytes.size();
    if (bytes != _saved) bytes.resize(whole_records(bytes, _root));
    _candidate = std::move(bytes);
    return !_candidate.empty();
}

// ---- load

Safe_result NV_safe_store::load() {
    const Turn turn(_turn);
    _length = 0;
    _dropped = 0;
    _candidate.clear();
    std::string found;
    Safe_result result = _file.find(found);
    if (result == Safe_result::loaded) {
        _length = _candidate.size();
        if (_length < _file_size) result = Safe_result::cut_short;
    }
    if (!restore()) { // a setting of the application's own type refused what fits its type
        _length = 0;
        return report(Safe_result::damaged, "a setting refused its value");
    }
    return report(result);
}

/// Bring the records of the last check into the tree.
bool NV_safe_store::restore() {
    int dropped;
    std::string bytes = prune(std::move(_candidate), _root, dropped);
    _dropped = dropped;
    _candidate.clear();
    Image_reader it(bytes);
    const Scoped_lock held(_root);
    _root.set_default(true);
    while (!it.at_end()) {
        if (_root.deserialise(&it)) continue;
        _root.set_default(true);
        return false;
    }
    return true;
}

// ---- save

/// The bytes of a save, and the flags of all items before it: saved, nothing_to_save or failed.
Safe_result NV_safe_store::serialise(NV_iterator::modes_t mode, std::string& bytes, std::vector<unsigned char>& flags) {
    flags.reserve(NV_file_iterator::budget / 8);
    const Scoped_lock held(_root);
    settle_flags(_root, &flags);
    Collector it(bytes, mode);
    // A setting of the application's own type may fail, or write what cannot be read past. (An image is gone through
    // when it is read back from the medium.)
    const bool written = _root.serialise(&it);
    it.finish();
    if (!written || (mode != NV_iterator::mode_write && whole_records(bytes, _root) != bytes.size())) {
        mark_again(flags);
        return Safe_result::failed;
    }
    return bytes.empty() ? Safe_result::nothing_to_save : Safe_result::saved;
}

/// What could not be saved is to be saved again.
void NV_safe_store::mark_again(const std::vector<unsigned char>& flags) {
    size_t at = 0;
    for (NV_item* i = &_root; i && at < flags.size(); i = _root.get_next_in_tree(i))
        i->change_flags(flags[at++] & changed, 0);
}

void NV_safe_store::locked_mark_again(const std::vector<unsigned char>& flags) {
    const Scoped_lock held(_root);
    mark_again(flags);
}

Safe_result NV_safe_store::save() {
    const Turn turn(_turn);
    return locked_save();
}

Safe_result NV_safe_store::locked_save() {
    std::string bytes;
    std::vector<unsigned char> flags;
    Safe_result result = serialise(NV_iterator::mode_write, bytes, flags);
    if (result != Safe_result::saved) return report(result, "a setting cannot be saved");
    result = _file.replace(bytes);
    if (result == Safe_result::saved) {
        _length = bytes.size();
        _saved = std::move(bytes);
    } else {
        locked_mark_again(flags);
    }
    return report(result);
}

Safe_result NV_safe_store::save_changes() {
    const Turn turn(_turn);
    if (!ready_to_append()) return locked_save();
    std::string bytes;
    std::vector<unsigned char> flags;
    Safe_result result = serialise(NV_iterator::mode_journal_1, bytes, flags);
    if (result != Safe_result::saved) return report(result, "a setting cannot be saved");
    std::optional<Safe_result> appended;
    if (_length + bytes.size() <= NV_file_iterator::budget) appended = _file.append(bytes, _length);
    if (appended == Safe_result::saved) {
        _length += bytes.size();
        return Safe_result::saved;
    }
    locked_mark_again(flags);
    return appended ? report(*appended) : locked_save();
}

/// Whether the file is there and good; one that is not as it was loaded or saved here is looked at.
bool NV_safe_store::ready_to_append() {
    if (_length > 0 && _file.is_as_left()) return true;
    _length = _file.has_newest() ? _candidate.size() : 0;
    _candidate.clear();
    return _length > 0;
}

} // namespace NV_store
