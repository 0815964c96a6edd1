// SPDX-License-Identifier: MIT
#pragma once
#include "glue/cds/CDS_events.h"
#include "glue/cds/CDS_items.h"
#include "glue/cds/CDS_remote.h"
#include <mutex>

/// What the components of the machine share. Members that are replaced as a whole have no gaps: ranges are compared
/// byte by byte.
struct Machine_block {
    struct Position {
        double lat, lon; ///< [rad]
        double hgt;      ///< [m]
    } position;
    struct Quality {
        int type;
        float sigma; ///< [m]
    } quality;
    struct Satellites {
        unsigned char locked[2], used[2]; ///< GPS, GLONASS
    } satellites;
    struct Display {
        int every; ///< [s] between two status lines, 1..60
    } display;
};

/// The block with its description and the registry of those who want to know when it changes.
class Machine_store {
public:
    explicit Machine_store(module_man& modules) : head(&modules, 0) { _root.finish(); }

    /// Replace a member of the block and wake those whose range changed.
    template <class Member>
    void put(Member Machine_block::*member, const Member& value) {
        const std::lock_guard<Mutex> guard(head);
        Member& place = _block.*member;
        const Member before = place;
        place = value;
        head.event_signal(&place, &before, offset_of(&place), sizeof place, nullptr);
    }
    Machine_block get() {
        const std::lock_guard<Mutex> guard(head);
        return _block;
    }
    /// The range of the position, to register for.
    CDS::Access_base position_range() {
        return CDS::Access_base(&head, offset_of(&_block.position), sizeof _block.position);
    }

    CDS::Lookup_root& root() { return _root; }
    /// Whether another program may give an item this value.
    bool may_write(const CDS::Lookup_item& item, CDS::Remote::Receive_buffer value) const {
        int seconds = 0;
        return &item == &_every && value.pop_INT32(seconds) && seconds >= 1 && seconds <= 60;
    }

    CDS::Head head;

private:
    int offset_of(const void* member) const {
        return static_cast<int>(static_cast<const char*>(member) - reinterpret_cast<const char*>(&_block));
    }

    Machine_block _block{{}, {}, {}, {1}};

    CDS::Root _root{head, "machine", _block};
    CDS::Struct _position{_root, "position", _block.position};
    CDS::Value<double> _lat{_position, "lat", _block.position.lat, "latitude [rad]"};
    CDS::Value<double> _lon{_position, "lon", _block.position.lon, "longitude [rad]"};
    CDS::Value<double> _hgt{_position, "hgt", _block.position.hgt, "height [m]"};
    CDS::Struct _quality{_root, "quality", _block.quality};
    CDS::Value<int> _type{_quality, "type", _block.quality.type, "kind of solution"};
    CDS::Value<float> _sigma{_quality, "sigma", _block.quality.sigma, "[m]"};
    CDS::Struct _satellites{_root, "satellites", _block.satellites};
    CDS::Array<unsigned char> _locked{_satellites, "locked", _block.satellites.locked, "GPS, GLONASS"};
    CDS::Array<unsigned char> _used{_satellites, "used", _block.satellites.used, "GPS, GLONASS"};
    CDS::Struct _display{_root, "display", _block.display};
    CDS::Value<int> _every{_display, "every", _block.display.every, "[s] between status lines"};
};
