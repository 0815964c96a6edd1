// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace NV_store {

/// What became of a save or a load that is safe against power loss.
enum class Safe_result {
    // A load
    loaded,                ///< the newest generation
    cut_short,             ///< the newest, less the changes at its end that a cut or damage left incomplete
    fell_back,             ///< the newest was missing or damaged: the generation before it
    started_from_defaults, ///< nothing was ever saved
    damaged,               ///< no good generation: defaults; what was refused is kept
    // Both
    unreadable, ///< what is there cannot be read, or is no file: defaults; it is left alone, and nothing saved over it
    // A save
    saved,
    nothing_to_save,
    disk_full,
    read_only, ///< the medium or the folder does not let us write
    failed     ///< any other error; what was saved before is still there
};

/// One or two words for a log.
KAV_API const char* to_text(Safe_result result);
/// Whether everything that was saved before is loaded, or everything that was to be saved is.
KAV_API bool is_good(Safe_result result);

/// A file of which a good generation survives a power cut at any moment:
///
///     path       the newest
///     path.bak   the one before
///     path.new   being written; removed at the next start
///     path.spare the newest on its way to path.bak or path.bad; removed at the next start
///     path.bad   one that was refused, for whoever wants to look; the next ones are path.bad2 to path.bad9
///
/// A new file is written beside the old one, synced, checked, and renamed over it. What is not good never takes the
/// place of something that is. The file keeps its rights and, where the system lets us, its owner; a new one has 0600.
/// Where the path is a symbolic link, all this happens to the file that it leads to and in that one's folder.
///
/// Set aside is only a regular file that was read whole and refused. A file that cannot be read now (no free
/// descriptor, no permission, an I/O error, more than 1 MiB), or what is no regular file, is left alone: `unreadable`.
///
/// One thread at a time. Several objects may stand for one path: they take turns, under a lock on the folder, which
/// also keeps a second process out. Who does not get it within 10 s goes on without.
class KAV_API Safe_file {
public:
    /// Whether a file that holds these bytes is good. It may take them.
    using Check = bool (*)(void* whose, std::string& bytes);

    /// `whose` is handed to each check.
    Safe_file(const char* path, Check check, void* whose);

    /// Put new content in place: saved, unreadable, or what failed. An error leaves the old content. After a find()
    /// that answered unreadable nothing is saved while what it could not read is there. Blocks for as long as the
    /// medium takes.
    Safe_result replace(const std::string& bytes);
    /// Write at an offset [bytes] of a file that is_as_left(), in place; what stood behind it goes first. None when the
    /// file is not as it was left, or has no right to be written.
    std::optional<Safe_result> append(const std::string& bytes, size_t offset);
    /// The best good generation: loaded or fell_back with its path, or why there is none. Removes what an interrupted
    /// replace() left and sets aside what was refused.
    Safe_result find(std::string& found);
    /// Whether the newest generation is there and good; touches nothing.
    bool has_newest();
    /// Whether the newest generation is the file that the last of these calls left or found good.
    bool is_as_left();

    /// What the system says of the last call's failure, or where a refused file went; empty: nothing.
    const std::string& reason() const { return _reason; }
    /// Report a result that is not good in one line on the debug output: "WHO PATH: RESULT: REASON". The result.
    Safe_result report(const char* who, Safe_result result, const std::string& reason) const;

    const std::string& path() const { return _path; }

private:
    enum Finding { absent, good, refused, unreadable };
    using Stamp = std::array<int64_t, 5>; ///< tells whether a file is another one or has changed

    bool begin();
    Finding examine(const std::string& path);
    Safe_result not_read(const std::string& path);
    Safe_result failure(const char* suffix = "");
    bool write_new(const std::string& bytes);
    bool write_synced(const std::string& path, const std::string& bytes, std::string& back) const;
    bool keep_previous(Finding previous);
    void set_aside(const std::string& path);
    std::string name_for_refused() const;
    std::string beside(const char* suffix) const { return _target + suffix; }

    const std::string _path;
    const Check _check;
    void* const _whose;
    std::string _target; ///< where the path leads to
    std::string _unread; ///< what the last find() could not read
    std::string _reason;
    Stamp _left{}; ///< of the newest generation as it was left; zeros: not known
};

/// A text with as many line feeds behind it as the checksummed file format needs to verify it. Above 255 bytes it
/// verifies only multiples of 255, and no zero may stand among the last four bytes.
KAV_API std::string padded_text(std::string text);

/// A text of at most 1 MiB that is kept as a checksummed file, safe against power loss. One thread at a time.
class KAV_INTERNAL Safe_text {
public:
    explicit Safe_text(const char* path);
    Safe_text(const Safe_text&) = delete;
    Safe_text& operator=(const Safe_text&) = delete;

    Safe_result save(const std::string& text);
    /// The text comes with its padding; without a good generation it is empty. After `unreadable` nothing is saved
    /// while what could not be read is there.
    Safe_result load(std::string& text);
    /// What the system says of the last call's failure, or where a refused file went; empty: nothing.
    const std::string& reason() const { return _file.reason(); }
    const std::string& path() const { return _file.path(); }

private:
    std::string _text; ///< what the last check read
    Safe_file _file;
};

/// Save and load once, see Safe_text. Any thread.
KAV_API Safe_result save_checksummed(const char* path, const std::string& text);
KAV_API Safe_result load_checksummed(const char* path, std::string& text);

} // namespace NV_store
