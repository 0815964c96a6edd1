// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_iterator.h"
#include "glue/NV_store/Safe_file.h"
#include "util/Mutex.h"
#include "util/api.h"
#include <atomic>
#include <string>
#include <vector>

namespace NV_store {

class NV_item;
class NV_root;

/// Keeps a settings tree in a file so that a power cut at any moment loses nothing that was saved before. What is
/// loaded afterwards is the last save or, if that was cut, the one before; never a mixture.
///
///     NV_safe_store store(settings, "/data/settings");
///     store.load();                  // at start
///     settings.wheel.radius.set(0.8f);
///     store.save_changes();          // small: appends what changed
///     store.save();                  // complete; the generation before stays as settings.bak
///
/// The file holds a complete image and behind it the changes saved since, in the format of the tree's own save. A file
/// is checked whole, byte by byte, before the first setting is touched. Records of settings that the program no longer
/// has, or has with another type, are left out, and so is a list that has grown.
///
/// Any thread; calls take turns, and wait for each other as long as the medium takes. The tree's lock is taken only
/// while settings are read or written, never while the medium is busy. The caller must not hold it, and what a load's
/// return to a default calls must not take it. Saves clear the changed flags of both journals: use no other journal
/// beside this.
class KAV_API NV_safe_store {
public:
    /// `root` outlives the store.
    NV_safe_store(NV_root& root, const char* path);

    /// Replace all settings by the best good generation, those that it does not hold by their defaults. Waiters are
    /// notified of a return to a default only; NV_item::signal_all() notifies them all.
    Safe_result load();
    /// Write a complete image. A tree that holds nothing loaded or set is not written over anything.
    Safe_result save();
    /// Append what changed since the last save; a complete image instead when the file would outgrow its budget, or
    /// when there is no good one to append to.
    Safe_result save_changes();

    int get_dropped() const { return _dropped; } ///< records that the last load left out. No lock

private:
    bool check(std::string& bytes) KAV_REQUIRES(_turn);
    bool restore() KAV_REQUIRES(_turn) KAV_EXCLUDES(_root);
    bool ready_to_append() KAV_REQUIRES(_turn);
    Safe_result serialise(NV_iterator::modes_t mode, std::string& bytes, std::vector<unsigned char>& flags)
        KAV_EXCLUDES(_root);
    void mark_again(const std::vector<unsigned char>& flags) KAV_REQUIRES(_root);
    void locked_mark_again(const std::vector<unsigned char>& flags) KAV_EXCLUDES(_root);
    Safe_result locked_save() KAV_REQUIRES(_turn);
    Safe_result report(Safe_result result) const { return report(result, _file.reason()); }
    Safe_result report(Safe_result result, const std::string& reason) const {
        return _file.report("NV_safe_store", result, reason);
    }

    NV_root& _root;
    Mutex _turn; ///< of the thread that loads or saves
    Safe_file _file;
    size_t _length KAV_GUARDED_BY(_turn) = 0; ///< [bytes] of whole records in the file; 0: not known to be good
    /// What the last check read, as far as it is whole.
    std::string _candidate KAV_GUARDED_BY(_turn);
    /// The file's content after a complete save; known to be good, it is not gone through again.
    std::string _saved KAV_GUARDED_BY(_turn);
    size_t _file_size KAV_GUARDED_BY(_turn) = 0; ///< [bytes] of the file that the last check read
    std::atomic<int> _dropped{0};
};

/// Let containers follow what is in them: one with something loaded or changed below counts as loaded or changed
/// itself, and a list with one such element is saved whole. Notifications that failed leave this undone. `before`
/// receives the flags that the items had, containers before what is in them. Under the tree's lock.
KAV_API void settle_flags(NV_item& item, std::vector<unsigned char>* before = nullptr);

} // namespace NV_store
