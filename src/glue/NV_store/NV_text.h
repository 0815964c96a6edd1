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
/// It also does, in brackets as in "nozzles/[2]", for a name that a sibling has too, and for one that is not plain. Not
/// plain is an empty name, and one with any of "/,=" or a control character in it, with '#' or '[' in front, or with a
/// blank at an end.
///
/// Numbers are exact: what is read back is the same bit for bit, but for the payload of a nan. A pointer is the path of
/// its target, nothing for none. For a setting of the application's own type or class stands a comment: nobody knows
/// whether its text could be read back.
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
/// checked before the first value is set, so a text that is refused changes nothing. Refused is a path that leads to no
/// setting or was given before, a value that is not wholly one of the setting's type, and a target that the pointer
/// cannot point at.
///
/// Numbers are decimal; integers may also be hexadecimal (0x1F). A bool is true, false, yes, no, 1 or 0. Blanks around
/// a path and a value, empty lines, and lines that begin with '#' do not count; a line may end with CR LF.
///
/// Takes the tree's lock; the caller must not hold it. Signals and listeners are called under it.
KAV_API Import_result import_text(NV_root& root, const std::string& text);

} // namespace NV_store
