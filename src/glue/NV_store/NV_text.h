// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <string>

namespace NV_store {

class NV_root;

/// All settings of a tree as text, one line each, in the tree's order:
///
///     wheel/radius=0.85
///     sections/0=150
///     active=wheel/radius
///
/// A path is made of the names below the root, joined by '/'. In an indexed container the position stands for the name.
/// So it does, in brackets as in "nozzles/[2]", for a child whose name cannot tell it from its siblings (another has
/// the same) or from the rest of a line: an empty one, one with any of "/,=" or a control character in it, with '#' or
/// '[' in front, or with a blank at an end. Numbers are exact: what is read back is the same bit for bit, but for the
/// payload of a nan. A pointer is the path of its target, nothing for none. A setting of the application's own type or
/// class has no text of which it is known that it can be read back; a comment stands for it.
///
/// Takes the tree's lock; the caller must not hold it.
KAV_API std::string export_text(NV_root& root);

/// What became of a text that was to be imported.
struct Import_result {
    int values = 0;    ///< set
    std::string error; ///< "line 3: wheel/radius: ...", one line; empty when the text was taken
    bool good() const { return error.empty(); }
};

/// Set the settings that a text names, as set() does; those that it does not name keep their values. Every line is
/// checked before the first value is set, so a text that is refused changes nothing: one with a path that leads to no
/// setting or was given before, with a value that does not fit the setting's type wholly, or with a target that a
/// pointer cannot point at. Numbers are decimal or, if
/// integers, also hexadecimal (0x1F); a bool is true, false, yes, no, 1 or 0. Blanks around a path and a value, empty
/// lines, and lines that begin with '#' do not count; a line may end with CR LF.
///
/// Takes the tree's lock while it sets; the caller must not hold it. Signals and listeners are called under it.
KAV_API Import_result import_text(NV_root& root, const std::string& text);

} // namespace NV_store
