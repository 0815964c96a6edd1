// SPDX-License-Identifier: MIT
// What goes over the line and onto the medium, byte by byte.
//
// Prints:
//     receiver time, 12 bytes:
//     0000  7E 7E 30 30 35 00 2E 93 02 E6 0D 0A              ~~005.......
//     fault record, 17 bytes:
//     0000  53 50 30 30 42 80 11 00 B1 04 10 B9 01 6B 91 98  SP00B........k..
//     0010  0A                                               .
//     description, 55 bytes:
//     0000  31 3A 31 3A 6D 61 63 68 69 6E 65 7B 31 3A 32 3A  1:1:machine{1:2:
//     0010  65 6E 67 69 6E 65 7B 35 3A 33 3A 73 70 65 65 64  engine{5:3:speed
//     0020  2C 61 3A 34 3A 6C 6F 61 64 7D 2C 32 33 3A 35 3A  ,a:4:load},23:5:
//     0030  64 72 69 76 65 72 7D                             driver}
//     values, 11 bytes:
//     0000  AA 05 00 00 20 3F 04 41 6E 6E 00                 .... ?.Ann.
//     request, 12 bytes:
//     0000  56 09 04 00 02 00 04 00 62 2F 07 36              V.......b/.6
//     answer, 12 bytes:
//     0000  56 09 04 00 00 00 20 3F 72 2B 80 DB              V..... ?r+..
//     settings, 38 bytes:
//     0000  00 01 01 00 01 01 03 00 05 09 01 00 78 00 0A 09  ............x...
//     0010  02 00 00 00 40 3F 01 02 03 00 81 5F 14 1E 00 02  ....@?....._....
//     0020  01 00 7B 8B EE 11                                ..{...
//     one change, 30 bytes:
//     0000  00 01 01 00 01 01 03 00 05 09 01 00 79 00 01 02  ............y...
//     0010  03 00 B3 C1 BA 9E 00 02 01 00 BE 4C 56 FF        ...........LV.
//     checksummed file, 27 bytes:
//     0000  67 61 69 6E 20 3D 20 30 2E 37 35 0A 0A 43 52 43  gain = 0.75..CRC
//     0010  33 32 3D 46 37 35 36 34 33 31 35                 32=F7564315
#include "glue/NV_store/NV_buffer_iterator.h"
#include "glue/NV_store/NV_number.h"
#include "glue/NV_store/NV_root.h"
#include "glue/cds/CDS_events.h"
#include "glue/cds/CDS_items.h"
#include "glue/cds/CDS_remote.h"
#include "glue/cds/CDS_responder.h"
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "glue/diagnostics/Diagnostics_messages.h"
#include "glue/vorn/GNSS_messages.h"
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

void dump(const char* title, const std::string& bytes) {
    printf("%s, %zu bytes:\n", title, bytes.size());
    for (size_t row = 0; row < bytes.size(); row += 16) {
        std::string hex, text;
        for (size_t i = row; i < row + 16 && i < bytes.size(); ++i) {
            const unsigned c = static_cast<unsigned char>(bytes[i]);
            char digits[4];
            snprintf(digits, sizeof digits, "%02X ", c);
            hex += digits;
            text += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.';
        }
        printf("%04zX  %-48s %s\n", row, hex.c_str(), text.c_str());
    }
}

template <class Bytes>
std::string as_text(const Bytes& bytes, size_t n) {
    return std::string(reinterpret_cast<const char*>(bytes), n);
}

void show_receiver() {
    unsigned char bytes[10];
    Vorn_message time(bytes, sizeof bytes);
    time.setup(GNSS_messages::id_RT, sizeof bytes);
    time.set_uint32_le(5, 43200000); // [ms] noon
    time.set_checksum();
    dump("receiver time", as_text(bytes, sizeof bytes) + "\r\n");

    unsigned char record[Diagnostics_messages::Msg_SP::size_total];
    Diagnostics_messages::build_SP(record, 0x80, 17, 1201, 1795275024, 580);
    dump("fault record", as_text(record, sizeof record) + "\n");
}

struct Block {
    struct Engine {
        unsigned short speed;
        float load;
    } engine;
    char driver[4];
};

void show_data_store() {
    Block block = {{1450, 0.625f}, "Ann"};
    CDS::Head head(nullptr, 0);
    CDS::Root root(head, "machine", block);
    CDS::Struct engine(root, "engine", block.engine);
    CDS::Value<unsigned short> speed(engine, "speed", block.engine.speed);
    CDS::Value<float> load(engine, "load", block.engine.load);
    CDS::Array<char> driver(root, "driver", block.driver);
    root.finish();

    char bytes[256];
    CDS::Remote::Send_buffer description(bytes, 0, sizeof bytes);
    root.serialise_structure(description, 255);
    dump("description", as_text(bytes, static_cast<size_t>(description.position - bytes)));
    CDS::Remote::Send_buffer values(bytes, 0, sizeof bytes);
    unsigned short from_the_start = 0;
    root.serialise(values, from_the_start);
    dump("values", as_text(bytes, static_cast<size_t>(values.position - bytes)));

    // A client asks for the values of the engine, identifier 2, from its load, identifier 4, on.
    const CDS::Remote::Write_rule none;
    CDS::Remote::Responder responder(root, none);
    CDS::Remote::Frame request;
    request.kind = CDS::Remote::Frame::values;
    request.tag = 9;
    request.contents = "\2\0\4\0";
    request.length = 4;
    responder.received(request.write_to(responder.place()));
    dump("request",
         as_text(responder.place() - responder.num_received(), static_cast<size_t>(responder.num_received())));
    responder.step();
    dump("answer", as_text(responder.pending(), static_cast<size_t>(responder.num_pending())));
}

struct Wheel : NV_store::NV_container {
    explicit Wheel(NV_container* parent) : NV_container(parent, parent->get_root(), 3, "wheel") {}
    NV_store::NV_uint16 pulses{this, 1, "pulses", 98};
    NV_store::NV_float radius{this, 2, "radius", 0.85f};
};
struct Settings : NV_store::NV_root {
    Settings() : NV_root(nullptr, 1, "settings") {}
    Wheel wheel{this};
};

void show_settings() {
    Settings settings;
    settings.wheel.pulses.set(120);
    settings.wheel.radius.set(0.75f);
    unsigned char bytes[256];
    NV_store::NV_buffer_iterator image(bytes, sizeof bytes, 0);
    image.set_mode(NV_store::NV_iterator::mode_write);
    settings.serialise(&image);
    dump("settings", as_text(bytes, static_cast<size_t>(image.write_position)));

    settings.wheel.pulses.set(121);
    NV_store::NV_buffer_iterator changes(bytes, sizeof bytes, 0);
    changes.set_mode(NV_store::NV_iterator::mode_journal_1);
    settings.serialise(&changes);
    dump("one change", as_text(bytes, static_cast<size_t>(changes.write_position)));
}

bool show_checksummed_file() {
    std::string folder = (std::filesystem::temp_directory_path() / "formats-XXXXXX").string();
    if (!mkdtemp(folder.data())) return false;
    const std::string path = folder + "/gain.txt";
    File_checksummed_data_stream file;
    if (!file.open_write(path.c_str())) return false;
    file._write(reinterpret_cast<const unsigned char*>("gain = 0.75"), 11);
    file.close_write();
    std::ifstream in(path);
    dump("checksummed file", std::string(std::istreambuf_iterator<char>(in), {}));
    std::filesystem::remove_all(folder);
    return true;
}

} // namespace

int main() {
    show_receiver();
    show_data_store();
    show_settings();
    return show_checksummed_file() ? 0 : 1;
}
