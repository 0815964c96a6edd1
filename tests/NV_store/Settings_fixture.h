// SPDX-License-Identifier: MIT
#pragma once
#include "glue/NV_store/NV_buffer_iterator.h"
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_pointer.h"
#include "glue/NV_store/NV_root.h"
#include "glue/diner/module_man.h"
#include "glue/diner/waiter_descriptor.h"
#include "util/atime.h"
#include <string>
#include <vector>

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

    /// Everything saved in a mode, as bytes.
    std::string image(NV_store::NV_iterator::modes_t mode) {
        unsigned char bytes[1024];
        NV_store::NV_buffer_iterator it(bytes, sizeof bytes, 0);
        it.set_mode(mode);
        return serialise(&it) ? std::string(reinterpret_cast<char*>(bytes), static_cast<size_t>(it.write_position))
                              : "failed";
    }
    bool load(std::string bytes) {
        NV_store::NV_buffer_iterator it(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
                                        static_cast<int>(bytes.size()));
        it.set_mode(NV_store::NV_iterator::mode_read);
        return deserialise(&it);
    }
    std::string text() const {
        char all[256];
        _to_string(all, sizeof all);
        return all;
    }
    /// Give every setting another value, so that all are to be saved.
    void set_all() {
        speed.set(2.5f);
        wheel.fitted.set(false);
        wheel.offset.set(7);
        sections.left.set(10);
        sections.middle.set(20);
        sections.right.set(30);
        active.set(&wheel.offset);
    }
};
