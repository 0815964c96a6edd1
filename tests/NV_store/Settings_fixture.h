// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_buffer_iterator.h"
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_pointer.h"
#include "glue/NV_store/NV_root.h"
#include "support/Test_diner.h"
#include "support/frame.h"

/// What saving gives: the bytes, or "failed".
inline std::string image_of(NV_store::NV_item& item,
                            NV_store::NV_iterator::modes_t mode = NV_store::NV_iterator::mode_write,
                            int capacity = 4096) {
    const auto block = std::make_unique<unsigned char[]>(static_cast<size_t>(capacity));
    NV_store::NV_buffer_iterator it(block.get(), capacity, 0);
    it.set_mode(mode);
    if (!item.serialise(&it)) return "failed";
    return std::string(reinterpret_cast<char*>(block.get()), static_cast<size_t>(it.write_position));
}

inline std::string text_form(const NV_store::NV_item& item) {
    char all[256];
    item._to_string(all, sizeof all);
    return all;
}

/// Load an image; the result. `left` receives how many bytes were not read.
inline bool load_image(NV_store::NV_item& item, const std::string& image, int* left = nullptr) {
    std::vector<unsigned char> exact(image.begin(), image.end()); // of the heap, where its end is watched
    NV_store::NV_buffer_iterator it(exact.data(), static_cast<int>(image.size()), static_cast<int>(image.size()));
    it.set_mode(NV_store::NV_iterator::mode_read);
    const bool result = item.deserialise(&it);
    if (left) *left = it.write_position - it.read_position;
    return result;
}

/// Like elements, addressed by position.
struct Sections : NV_store::NV_container {
    Sections(NV_store::NV_container* p, NV_store::NV_root* r) : NV_container(p, r, 4, "sections") {}
    item_type_t get_type() const override { return item_container; }
    bool children_named() const override { return false; }
    NV_store::NV_uint16 left{this, 1, "width"};
    NV_store::NV_uint16 middle{this, 1, "width"};
    NV_store::NV_uint16 right{this, 1, "width"};
};

struct Wheel : NV_store::NV_container {
    Wheel(NV_store::NV_container* p, NV_store::NV_root* r) : NV_container(p, r, 3, "wheel") {}
    NV_store::NV_bool fitted{this, 1, "fitted", true};
    NV_store::NV_int16 offset{this, 0x0102, "offset", -2};
};

struct Settings : NV_store::NV_root {
    explicit Settings(module_man* mm) : NV_root(mm, 1, "machine") {}
    NV_store::NV_float speed{this, 2, "speed", 1.5f};
    Wheel wheel{this, this};
    Sections sections{this, this};
    NV_store::NV_pointer active{this, 5, "active"};

    std::string text() const { return text_form(*this); }
    std::string image(NV_store::NV_iterator::modes_t mode) { return image_of(*this, mode); }
    bool load(const std::string& bytes) { return load_image(*this, bytes); }
    /// Give every setting another value, so that all are to be saved.
    void set_all() { _from_string("{2.5,{false,7},{10,20,30},wheel/offset}"); }
};
