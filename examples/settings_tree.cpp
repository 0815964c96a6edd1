// SPDX-License-Identifier: MIT
// A tree of settings with a list and a pointer in it: the walk through its items, and the way to another machine in a
// plain file, with what is said when such a file is missing, damaged or finds no room.
//
// Prints:
//     the tree itself is refused
//     sprayer: container
//     - boom: list
//     - - 0: 300
//     - - 1: 600
//     - tank: container
//     - - volume: 3000
//     - - rinsed: true
//     - shown: tank/volume
//     62 of 16384 bytes
//     92 of 16384 bytes
//     other machine: {{300,600},{2500,true},tank/volume}
//     here, without the tank: {{300,600},}
//     lost: No such file or directory
//     cut: ends too early
//     cut: ends too early
//     third machine: {{300,600},{3000,true},tank/volume}
//     NV_store CRC32 Check ...!=... for 13:boom
//     NV child was bad for 0:sprayer
//     other machine: {{0,0},{2500,true},tank/volume}
//     Error in NV_file_iterator: No space left on device
//     Error in NV_file_iterator: No space left on device
//     Error in NV_file_iterator: No space left on device
//     Serialise failed for 13:boom
//     Serialise failed for 0:sprayer
#include "glue/NV_store/NV_file_iterator.h"
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_pointer.h"
#include "glue/NV_store/NV_root.h"
#include "glue/NV_store/NV_safe_store.h"
#include "util/Debug_print.h"
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

using namespace NV_store;

/// A list: its elements share an identifier, and paths know them by their position.
struct Boom : NV_container {
    explicit Boom(NV_root* root) : NV_container(root, root, 1, "boom") {}
    item_type_t get_type() const override { return item_container; }
    bool children_named() const override { return false; }
    NV_uint16 left{this, 1, "width"}, right{this, 1, "width"}; ///< [cm]
};

struct Tank : NV_container {
    explicit Tank(NV_root* root) : NV_container(root, root, 2, "tank") {}
    NV_uint16 volume{this, 1, "volume", 3000}; ///< [l]
    NV_bool rinsed{this, 2, "rinsed"};
};

struct Sprayer : NV_root {
    Sprayer() : NV_root(nullptr, 1, "sprayer") {} // sends no events
    Boom boom{this};
    Tank tank{this};
    NV_pointer shown{this, 3, "shown"}; ///< on the display
};

void print_items(Sprayer& sprayer) {
    for (NV_item* i = &sprayer; i; i = sprayer.get_next_in_tree(i)) {
        for (const NV_item* above = i->get_parent(); above; above = above->get_parent()) printf("- ");
        char name[32], value[64];
        i->get_path_name(name, sizeof name);
        i->_to_string(value, sizeof value);
        const char* const kind = i->get_type() == Data_item::item_container ? "list" : "container";
        printf("%s: %s\n", name, i->as_container() ? kind : value);
    }
}

void print(const char* what, const Sprayer& sprayer) {
    char text[128];
    sprayer._to_string(text, sizeof text);
    printf("%s: %s\n", what, text);
}

/// Write all that was ever set or loaded or, in a journal mode, append what has changed since the last save. Where
/// other threads use the tree, its lock is held around this and load().
bool save(Sprayer& sprayer, NV_file_iterator& file, NV_iterator::modes_t mode) {
    settle_flags(sprayer); // so that a list is saved whole
    if (file.set_mode(mode) != 0 || !sprayer.serialise(&file)) return false;
    unsigned used, budget;
    file.get_free_space(used, budget);
    printf("%u of %u bytes\n", used, budget);
    return file.set_mode(NV_iterator::mode_closed) == 0; // a medium may tell only now that it has no room
}

bool load(Sprayer& sprayer, const std::string& path) {
    const std::string name = std::filesystem::path(path).filename().string();
    NV_iterator::NV_checksum passed; // counts the bytes that were read
    NV_file_iterator file(path.c_str());
    if (file.set_mode(NV_iterator::mode_read) != 0) {
        printf("%s: %s\n", name.c_str(), strerror(errno));
        return false;
    }
    file.add_checksum_getter(&passed);
    NV_iterator::NV_iterator_header next;
    while (file.peek_header(next)) // the complete save, then each change
        if (!sprayer.deserialise(&file)) return false;
    file.remove_checksum_getter(&passed);
    // No header is what the end looks like, and so do an empty file, a header of which a part is missing, and an error.
    if (passed.bytes > 0 && passed.bytes == std::filesystem::file_size(path)) return true;
    printf("%s: ends too early\n", name.c_str());
    return false;
}

} // namespace

int main() {
    Debug_print::debug_file = stdout; // where the library says what it refuses
    std::string folder = (std::filesystem::temp_directory_path() / "settings-XXXXXX").string();
    if (!mkdtemp(folder.data())) return 1;
    const std::string path = folder + "/sprayer";
    Sprayer here, there, third;

    here.boom.left.set(300);
    here.boom.right.set(600);
    here.tank.rinsed.set(true);
    here.shown.set(&here.tank.volume);
    if (!here.shown.set(&here)) puts("the tree itself is refused"); // no stored path leads to it
    print_items(here);

    NV_file_iterator file(path.c_str());
    bool good = save(here, file, NV_iterator::mode_write);
    here.tank.volume.set(2500);
    good = save(here, file, NV_iterator::mode_journal_1) && load(there, path) && good;
    print("other machine", there);

    here.remove_child(&here.tank);
    print("here, without the tank", here); // to which the pointer led

    good = !load(there, folder + "/lost") && good;
    const std::string cut = folder + "/cut";
    std::filesystem::copy_file(path, cut);
    for (const unsigned bytes : {65, 0}) { // of the change only 3
        std::filesystem::resize_file(cut, bytes);
        good = !load(third, cut) && good;
    }
    print("third machine", third);         // without the change
    std::fstream(path).seekp(12).put('?'); // in a width
    good = !load(there, path) && good;
    print("other machine", there); // the damaged container alone returns to its defaults

    NV_file_iterator full("/dev/full"); // as a medium without room
    good = !save(here, full, NV_iterator::mode_write) && good;
    std::filesystem::remove_all(folder);
    return good ? 0 : 1;
}
