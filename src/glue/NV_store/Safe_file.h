// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <functional>
#include <string>

namespace NV_store {

/// What became of a save or a load that is safe against power loss.
enum class Safe_result {
    // A load
    loaded,                ///< the newest generation
    cut_short,             ///< the newest, less the changes at its end that a cut or damage left incomplete
    fell_back,             ///< the newest was missing or damaged: the generation before it
    started_from_defaults, ///< nothing was ever saved
    damaged,               ///< no good generation: defaults; the refused file was kept
    unreadable,            ///< there are files, but they cannot be read: defaults
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
///     path      the newest
///     path.bak  the one before
///     path.new  being written; removed at the next start
///     path.bad  the last one that was refused, for whoever wants to look
///
/// A new file is written beside the old one, synced, checked, and renamed over it. What is not good never takes the
/// place of something that is. One thread at a time; the folder belongs to one process.
class KAV_API Safe_file {
public:
    /// Whether the file at a path, which holds these bytes, is good. It may take them.
    using Check = std::function<bool(const char* path, std::string& bytes)>;

    Safe_file(const char* path, Check check);

    /// Put new content in place. An error leaves the old one. Blocks for as long as the medium takes.
    Safe_result replace(const std::string& bytes);
    /// The best good generation: loaded or fell_back with its path, or why there is none. Removes what an interrupted
    /// replace() left and sets aside what was refused.
    Safe_result find(std::string& found);

    /// Whether the file at a path can be read and is good.
    bool is_good(const std::string& path) const;

    const std::string& path() const { return _path; }

private:
    bool write_new(const std::string& bytes) const;
    bool keep_previous() const;
    std::string beside(const char* suffix) const { return _path + suffix; }

    const std::string _path;
    const Check _check;
};

/// Make what happened in a file's folder permanent.
KAV_API bool sync_folder_of(const std::string& path);
/// The whole file; false with errno when it cannot be read or is larger than any settings file.
KAV_API bool read_whole(const char* path, std::string& bytes);
/// Write at an offset, going on after interruptions; false with errno.
KAV_API bool write_at(int fd, const std::string& bytes, size_t offset);
/// The result that an errno of a failed save stands for.
KAV_API Safe_result failure_result(int error);

/// A text with as many line feeds behind it as the checksummed file format needs to verify it: above 255 bytes only
/// multiples of 255 do, and no zero may stand among the last four bytes.
KAV_API std::string padded_text(std::string text);
/// Save a text of at most 1 MiB as a checksummed file, and load it, padding included.
KAV_API Safe_result save_checksummed(const char* path, const std::string& text);
KAV_API Safe_result load_checksummed(const char* path, std::string& text);

} // namespace NV_store
