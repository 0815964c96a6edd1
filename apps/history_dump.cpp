// SPDX-License-Identifier: MIT
// Prints the error history in a folder, oldest record first: the files of a controller's flash store, or a copy of
// them. Only reads, so it may run beside the program that has the store mounted.
// Status 1: the outside world failed, or there is not one record; 2: wrong arguments.
#include "glue/data_stream/File_data_stream.h"
#include "glue/diagnostics/Diagnostics.h"
#include "glue/diagnostics/Diagnostics_messages.h"
#include "glue/diagnostics/Trouble_code.h"
#include "glue/vorn/Vorn_parser.h"
#include "options.h"
#include "progress.h"
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <set>
#include <string>
#include <unistd.h>

namespace {

using Diagnostics_messages::Msg_SP;

const char usage[] =
    "Usage: history_dump FOLDER [BASE] [filters] [--csv]\n"
    "Print the error history in a folder, BASE0.dat to BASE9.dat, oldest record first. BASE may be\n"
    "left out when the folder holds one history. Bytes that are no record are passed over and\n"
    "counted on standard error.\n"
    "  --source N   only records of this source address, 1 to 255\n"
    "  --error N    only records with this error number, 1 to 65535\n"
    "  --from TIME  only records of this time or later: seconds since 1970, or in UTC 2023-11-14\n"
    "               or 2023-11-14T22:13:20\n"
    "  --to TIME    only records before this time\n"
    "  --csv        comma-separated form\n"
    "  -h, --help   this text\n"
    "  --version    the version\n"
    "Numbers may be given in hexadecimal: 0x80. The error number of a trouble code is the low 16 bits\n"
    "of its SPN; records that can be one show SPN, FMI and count.\n";

/// A trouble code that became active or inactive, as the manager records it.
struct Code_change {
    /// False when the two words are something else: the count of a code is 1 to 126.
    bool read(unsigned a, unsigned b) {
        code = Trouble_code::from_key(Trouble_code::key((a >> 5 & 7) << 16 | b, a & 31), a >> 8 & 0x7F);
        active = (a & 0x8000) == 0;
        return code.valid() && code.count >= 1 && code.count <= Trouble_code::max_count;
    }
    Trouble_code code;
    bool active = false;
};

/// A printing sink: its filter is the one that replays have.
class Printer : public Diagnostic_history {
public:
    void output(unsigned char src, unsigned short a, unsigned short b, unsigned int seconds,
                unsigned short ms) override {
        char more[64] = ",,,";
        Code_change c;
        if (csv) {
            if (c.read(a, b))
                snprintf(more, sizeof more, "%u,%u,%u,%s", c.code.spn, unsigned{c.code.fmi}, unsigned{c.code.count},
                         c.active ? "active" : "inactive");
            printf("%u.%03u,%u,%u,%u,%s\n", seconds, unsigned{ms}, unsigned{src}, unsigned{b}, unsigned{a}, more);
            return;
        }
        more[0] = '\0';
        if (c.read(a, b))
            snprintf(more, sizeof more, ", SPN %u FMI %u %s, count %u", c.code.spn, unsigned{c.code.fmi},
                     c.active ? "active" : "inactive", unsigned{c.code.count});
        const time_t t = seconds;
        struct tm utc;
        char text[32];
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", gmtime_r(&t, &utc));
        printf("%s.%03u source %u error %u word %u%s\n", text, unsigned{ms}, unsigned{src}, unsigned{b}, unsigned{a},
               more);
    }
    bool csv = false;
};

struct Options {
    std::string folder, base;
    unsigned source = 0, error = 0, from = 0, to = 0xFFFFFFFF;
    bool csv = false;
};

bool read_time(const char* text, unsigned& value) {
    if (read_number(text, value)) return true;
    for (const char* form : {"%Y-%m-%d", "%Y-%m-%dT%H:%M:%S"}) {
        struct tm utc = {};
        const char* const stop = strptime(text, form, &utc);
        if (!stop || *stop) continue;
        const time_t t = timegm(&utc);
        value = static_cast<unsigned>(t);
        return t >= 0 && t <= 0xFFFFFFFF;
    }
    return false;
}

Options read_arguments(int argc, char** argv) {
    Options o;
    const auto words = read_options(argc, argv, usage,
                                    {{"source", o.source, 1u, 255u},
                                     {"error", o.error, 1u, 65535u},
                                     {"from", [&o](const char* text) { return read_time(text, o.from); }},
                                     {"to", [&o](const char* text) { return read_time(text, o.to); }},
                                     {"csv", o.csv}});
    if (words.empty() || words.size() > 2) fail(2, "give a folder and at most a base name (try --help)");
    o.folder = words[0];
    if (words.size() == 2) o.base = words[1];
    return o;
}

/// The base names of the histories in the folder.
std::set<std::string> find_bases(const std::string& folder) {
    DIR* const d = opendir(folder.c_str());
    if (!d) fail(1, "cannot read %s: %s", folder.c_str(), strerror(errno));
    std::set<std::string> bases;
    while (const dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        const size_t tail = strlen("N.dat");
        if (name.size() <= tail || name.compare(name.size() - 4, 4, ".dat") != 0) continue;
        const char digit = name[name.size() - tail];
        if (digit >= '0' && digit <= '9') bases.insert(name.substr(0, name.size() - tail));
    }
    closedir(d);
    return bases;
}

class History {
public:
    explicit History(std::string stem) : _stem(std::move(stem)) {}

    bool there(int n) const { return access(path(n).c_str(), F_OK) == 0; }

    /// Hand over the records of a file, in their order; returns the number of bytes that are no record, line ends and
    /// zeros left out.
    unsigned read(int n, const std::function<void(const Msg_SP&)>& take) const {
        const int fd = open(path(n).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 && errno == ENOENT) return 0; // removed by the program that writes the history
        if (fd < 0) fail(1, "cannot read %s: %s", path(n).c_str(), strerror(errno));
        File stream;
        stream.open_read(fd);
        Vorn_parser parser(&stream, false);
        unsigned char packet[300];
        for (int length;;) {
            if (parser.get_packet(packet, sizeof packet, length)) {
                const Vorn_message frame(packet, static_cast<unsigned>(length));
                if (!frame.validate(Diagnostics_messages::id_SP)) continue;
                take(Msg_SP(frame));
                stream.strange -= File::count(packet, static_cast<unsigned>(length));
            } else if (!stream.drop(1)) {
                break; // all is gone; until then, what nothing more will complete made room for a record behind it
            }
        }
        if (stream.failed()) fail(1, "cannot read %s: %s", path(n).c_str(), strerror(errno));
        return stream.strange;
    }
    uint64_t newest(int n) const { // [ms]
        uint64_t time = 0;
        read(n, [&](const Msg_SP& record) { time = std::max(time, record.time_ms()); });
        return time;
    }
    /// The number of the file with the oldest records, whether it is there or not.
    int first() const {
        bool present[Diagnostics::num_files];
        for (int n = 0; n < Diagnostics::num_files; ++n) present[n] = there(n);
        const auto time_of = [](void* history, int n) { return static_cast<const History*>(history)->newest(n); };
        return Diagnostics::inc_file_num(Diagnostics::find_current(present, time_of, const_cast<History*>(this)));
    }

    std::string path(int n) const { return _stem + std::to_string(n) + ".dat"; }

private:
    /// Counts the bytes that it reads, without line ends and zeros.
    struct File : File_data_stream {
        using Data_stream::get_data;
        bool get_data(int n) override {
            const uint32_t before = buffer.used();
            const bool all = File_data_stream::get_data(n);
            for (uint32_t i = before; i < buffer.used(); ++i) strange += count(buffer.at(i), 1);
            return all;
        }
        bool failed() const { return ferror(_read_file) != 0; }
        static unsigned count(const unsigned char* bytes, unsigned n) {
            return static_cast<unsigned>(
                std::count_if(bytes, bytes + n, [](unsigned char c) { return c != '\r' && c != '\n' && c != 0; }));
        }
        unsigned strange = 0;
    };

    std::string _stem;
};

void print_history(const History& history, Printer& printer) {
    Progress progress(Diagnostics::num_files);
    int n = history.first();
    bool any = false, garbage = false;
    for (int i = 0; i < Diagnostics::num_files; ++i, n = Diagnostics::inc_file_num(n)) {
        progress.at(static_cast<uint64_t>(i));
        if (!history.there(n)) continue;
        const unsigned strange = history.read(n, [&](const Msg_SP& r) {
            any = true;
            if (r.time() != 0) printer._output(r.src(), r.a(), r.b(), r.time(), r.ms());
        });
        if (strange == 0) continue;
        garbage = true;
        fprintf(stderr, "history_dump: %s: %u bytes are no record\n", history.path(n).c_str(), strange);
    }
    if (garbage && !any) fail(1, "no record at all");
}

} // namespace

int main(int argc, char** argv) {
    keep_standard_streams();
    Options o = read_arguments(argc, argv);
    const std::set<std::string> bases = find_bases(o.folder);
    if (bases.empty()) fail(1, "no history in %s", o.folder.c_str());
    if (o.base.empty()) {
        if (bases.size() > 1) {
            fail(2, "more than one history in %s: name one, for instance %s", o.folder.c_str(), bases.begin()->c_str());
        }
        o.base = *bases.begin();
    }
    if (bases.count(o.base) == 0) fail(1, "no history %s in %s", o.base.c_str(), o.folder.c_str());

    Printer printer;
    printer.csv = o.csv;
    printer.set_filter(static_cast<unsigned char>(o.source), static_cast<unsigned short>(o.error), o.from, o.to);
    if (o.csv) puts("time,source,error,word,spn,fmi,count,change");
    print_history(History(o.folder + "/" + o.base), printer);
    finish_output(1);
    return 0;
}
