// SPDX-License-Identifier: MIT
// Settings from outside: "i" and an image or a journal, or "t" and a text.
#include "NV_store/Settings_fixture.h"
#include "fuzz/checks.h"
#include "glue/NV_store/NV_safe_store.h"
#include "glue/NV_store/NV_scan.h"
#include "glue/NV_store/NV_text.h"
#include "glue/diner/Diner_info_list.h"
#include <vector>

using namespace NV_store;

namespace {

void fuzz_image(const std::string& bytes) {
    const std::vector<unsigned char> block(bytes.begin(), bytes.end());
    Record_walk walk(block.data(), static_cast<int>(bytes.size()));
    while (walk.next() < Record_walk::all_done) require(walk.depth >= 0, "the walk is at some depth");
    require(walk.end >= 0 && walk.end <= static_cast<int>(bytes.size()), "the walk ends in the bytes");

    Settings plain(&Diner_info_list::get());
    plain.load(bytes); // whatever comes of it
    Settings settings(&Diner_info_list::get());
    const size_t whole = whole_records(bytes, settings);
    int dropped = 0;
    const std::string pruned = prune(bytes.substr(0, whole), settings, dropped);
    require(whole_records(pruned, settings) == pruned.size(), "what is pruned is whole");
    if (pruned.empty()) return;
    require(settings.load(pruned), "what is pruned loads");
    settle_flags(settings);
    const std::string image = settings.image(NV_iterator::mode_write);
    Settings again(&Diner_info_list::get());
    require(again.load(image) && again.text() == settings.text(), "what was loaded is saved and loads");
}

void fuzz_text(const std::string& text) {
    Settings settings(&Diner_info_list::get());
    const std::string before = export_text(settings);
    if (!import_text(settings, text).good())
        return require(export_text(settings) == before, "a refused text changes nothing");
    const std::string after = export_text(settings);
    Settings again(&Diner_info_list::get());
    require(import_text(again, after).good() && export_text(again) == after, "what is written is read back");
}

} // namespace

void fuzz(Input in) {
    Data_item::lookup_max_id = 1; // the same identifiers each time
    in.next() == 'i' ? fuzz_image(in.rest()) : fuzz_text(in.rest());
}
