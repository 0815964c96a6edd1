// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_events.h"
#include "glue/cds/CDS_items.h"
#include "support/Test_diner.h"
#include <mutex>
#include <string>

/// A data block with a bit of everything and the items that describe it.
struct Engine {
    short speed;
    unsigned char mode;
    // a gap of one byte
    float load;
};

struct Block {
    Engine engine;
    unsigned short levels[4];
    char label[8];
    long counter;
    bool on;
};

struct Told : CDS::Update_listener {
    Told(const char* who, std::string& log) : name(who), calls(log) {}
    void updated(int why) override { calls += name + std::to_string(why) + " "; }
    const std::string name;
    std::string& calls;
};

struct Block_items {
    Block_items(CDS::Head& h, Block& b) : head(h), block(b) { root.finish(); }

    std::string told;
    Told engine_told{"engine", told}, speed_told{"speed", told}, label_told{"label", told}, on_told{"on", told};
    CDS::Head& head;
    Block& block;
    CDS::Root root{head, "machine", block, "the whole"};
    CDS::Struct engine{root, "engine", block.engine, "the engine", &engine_told};
    CDS::Value<short> speed{engine, "speed", block.engine.speed, "[1/min]", &speed_told};
    CDS::Value<unsigned char> mode{engine, "mode", block.engine.mode};
    CDS::Value<float> load{engine, "load", block.engine.load};
    CDS::Array<unsigned short> levels{root, "levels", block.levels};
    CDS::Array<char> label{root, "label", block.label, "", &label_told};
    CDS::Value<long> counter{root, "counter", block.counter};
    CDS::Value<bool> on{root, "on", block.on, "", &on_told};
};

/// A block that is described, with the same identifiers each time.
struct Described_block {
    module_man modules;
    Inbox inbox{modules}; // outlives its registrations
    CDS::Head head{&modules, 0};
    const unsigned short first_id = Data_item::lookup_max_id = 1; ///< root 1, engine 2, and so on to on 9
    Block block{{100, 2, 0.5f}, {1, 2, 3, 4}, "abc", 7, true};
    Block_items items{head, block};
};
