// SPDX-License-Identifier: MIT
// Two ends of a stream in memory: a diner answers at one end as it would on a serial line, main asks at the other.
//
// Prints:
//     12 + 30 = 42
//     7 + 8 = 15
//     no answer within 50 ms
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/diner/Diner_info_list.h"
#include "glue/diner/Diner_protection.h"
#include <cstdio>
#include <string>

namespace {

/// Take a line; empty when none arrives within the stream's read time-out.
std::string read_line(Data_stream& stream) {
    for (unsigned n = 0; n < 64; ++n) {
        if (!stream.bytes_avail(n + 1)) break;
        if (stream[n] != '\n') continue;
        std::string line(n + 1, 0);
        stream.get_data(reinterpret_cast<unsigned char*>(&line[0]), n + 1); // a look: the bytes stay
        stream.drop(n + 1);                                                 // now they are consumed
        line.pop_back();
        return line;
    }
    return "";
}

class Adder : public Diner::Protection {
public:
    explicit Adder(Virtual_pair_data_stream_part& end) : _end(end) {
        init(Diner_info_list::get(), Descriptor("ADDER", 2));
        _end.set_read_timeout(0); // a handler takes what is there and does not wait
        _end.reg_rx_waiter(&waiter, false);
        start();
    }
    ~Adder() override {
        _end.reg_rx_waiter(nullptr, false);
        terminate(true);
    }

private:
    void handle_event(waiter_event& event) override {
        if (event.module_id != static_cast<short>(_end.module_id())) return;
        for (std::string line = read_line(_end); !line.empty(); line = read_line(_end)) {
            int a, b;
            if (sscanf(line.c_str(), "%d %d", &a, &b) == 2) _end.printf("%d + %d = %d\n", a, b, a + b);
        }
    }
    void handle_timeout(Timeout&) override {}
    using Diner::handle_timeout;

    Virtual_pair_data_stream_part& _end;
};

} // namespace

int main() {
    Virtual_pair_data_stream pair(&Diner_info_list::get()); // outlives the diner that uses it
    Adder adder(pair.b);
    pair.a.set_read_timeout(5000); // [ms]
    pair.a.printf("12 30\n");
    puts(read_line(pair.a).c_str());
    pair.a.printf("7 8\n");
    puts(read_line(pair.a).c_str());

    pair.a.set_read_timeout(50);
    pair.a.printf("what?\n");
    if (read_line(pair.a).empty()) puts("no answer within 50 ms");
}
