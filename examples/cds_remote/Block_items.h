// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_items.h"

/// What the machine's components share.
struct Block {
    struct Engine {
        unsigned short speed;
        float load;
    } engine;
    double position[2];
    char driver[12];
    int wanted_speed;
};

/// Its description, one line per member.
struct Block_items {
    explicit Block_items(CDS::Head& h, Block& b) : head(h), block(b) { root.finish(); }
    CDS::Head& head;
    Block& block;
    CDS::Root root{head, "machine", block};
    CDS::Struct engine{root, "engine", block.engine};
    CDS::Value<unsigned short> speed{engine, "speed", block.engine.speed, "[1/min]"};
    CDS::Value<float> load{engine, "load", block.engine.load, "0..1"};
    CDS::Array<double> position{root, "position", block.position, "latitude, longitude [deg]"};
    CDS::Array<char> driver{root, "driver", block.driver};
    CDS::Value<int> wanted_speed{root, "wanted_speed", block.wanted_speed, "[1/min]"};
};
