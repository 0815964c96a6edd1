// SPDX-License-Identifier: MIT
#include "support/test.h"

namespace {

const std::string head = "[\n{\"ph\":\"M\",\"pid\":1,\"tid\":1,\"name\":\"kavqtglue_trace\",\"args\":{\"format\":1,"
                         "\"recorded\":20,\"kept\":12,\"dropped\":3}}";

/// An event at `us` [us] on a thread, with what else it says.
std::string event(const char* phase, double us, int thread, const std::string& rest) {
    return text_of(",\n{\"ph\":\"%s\",\"pid\":1,\"tid\":%d,\"ts\":%.3f%s}", phase, thread, us, rest.c_str());
}
std::string post(double us, int node, int queue) {
    return event("X", us, 7,
                 ",\"name\":\"post to PUMP\",\"cat\":\"post\",\"args\":{\"diner\":\"PUMP\",\"node\":" +
                     std::to_string(node) + ",\"queue\":" + std::to_string(queue) + ",\"free\":9}");
}
std::string handler(double us, int node) {
    return event("B", us, 8,
                 ",\"name\":\"PUMP 2000/1\",\"cat\":\"event\",\"args\":{\"diner\":\"PUMP\",\"node\":" +
                     std::to_string(node) + "}");
}

const std::string trace =
    head + ",\n{\"ph\":\"M\",\"pid\":1,\"tid\":8,\"name\":\"thread_name\",\"args\":{\"name\":\"PUMP\"}}" +
    post(1000000, 1, 1) + event("C", 1000000, 7, ",\"name\":\"free event nodes\",\"args\":{\"nodes\":996}") +
    handler(1000010, 1) + post(1000020, 2, 2) + event("E", 1000110, 8, "") + handler(1000120, 2) +
    event("B", 1000125, 8, ",\"name\":\"own\",\"cat\":\"program\",\"args\":{\"number\":1}") +
    event("E", 1000130, 8, "") + event("E", 1000420, 8, "") +
    event("B", 1500000, 8,
          ",\"name\":\"PUMP timeout\",\"cat\":\"timeout\",\"args\":{\"diner\":\"PUMP\",\"uid\":1,\"late_ms\":30}") +
    event("i", 1600000, 7,
          ",\"s\":\"t\",\"name\":\"refused by PUMP\",\"cat\":\"post\",\"args\":{\"diner\":\"PUMP\",\"module\":1}") +
    "\n]\n";

TEST(trace_view, tells_of_each_diner_and_draws) {
    Temporary_folder folder;
    const std::string picture = folder.file("t.svg");
    const Child_result r = run_program(TRACE_VIEW, {"-", "--plot", picture, "--to", "0.001"}, trace);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
    for (const char* wanted :
         {"0.600 s with 12 records (8 older ones overwritten, 3 dropped)", "Free event nodes at least 996.",
          "PUMP               2        1     200.0     300.0     300.0      55.0     100.0     100.0      2        1\n",
          "Longest handlers\n      at [s]  length [us] late [ms]\n    0.500000     100000.0       30  PUMP timeout, "
          "still "
          "running\n    0.000120        300.0        0  PUMP 2000/1\n",
          "Latest timeouts\n      at [s]  length [us] late [ms]\n    0.500000 "})
        EXPECT_NE(r.out.find(wanted), std::string::npos) << wanted << "\n" << r.out;
    const std::string svg = read_file(picture);
    EXPECT_NE(svg.find("<title>PUMP 2000/1, 300.0 us</title>"), std::string::npos);
    EXPECT_NE(svg.find(">thread 7</text>"), std::string::npos);
    EXPECT_EQ(run_program(TRACE_VIEW, {"-", "--plot", picture, "--from", "0.4", "--to", "0.55"}, trace).status, 0);
    const std::string later = read_file(picture);
    EXPECT_EQ(later.find("2000/1"), std::string::npos) << "not in that span";
    EXPECT_NE(later.find("still running"), std::string::npos);
    // A span of less than what a number so far from 0 can tell, and a handler whose end was not recorded.
    const Child_result far =
        run_program(TRACE_VIEW, {"-", "--plot", "/dev/null", "--from", "999999999", "--to", "999999999.0000001"},
                    head + handler(0, 1) + event("E", 9e6, 8, ",\"args\":{\"lost\":1}") + "\n]\n");
    EXPECT_EQ(far.end(), "0 ");
    EXPECT_NE(far.out.find("    0.000000          0.0        0  PUMP 2000/1, its end is lost\n"), std::string::npos);
}

TEST(trace_view, says_in_one_line_what_is_wrong) {
    const struct {
        std::string bytes;
        const char* line;
    } table[] = {{"", "line 1: it is no trace"},
                 {"garbage\n", "line 1: it is no trace"},
                 {"[\n{\"ph\":\"M\",\"name\":\"other\"},\n]\n", "line 2: it is no trace"},
                 {"[\n]\n", "line 2: it is no trace"},
                 {head + ",\n{\"ph\":\"B\"}\n]\n", "line 3: an event without a time"},
                 {head + ",\nxyz,\n]\n", "line 3: no event"},
                 {head + "\n{}\n]\n", "line 3: a line behind the last one"},
                 {head + ",\n" + std::string(5000, 'x') + "\n", "line 3: a line that is too long"}};
    for (const auto& row : table) {
        const Child_result r = run_program(TRACE_VIEW, {"-"}, row.bytes);
        EXPECT_EQ(r.err, std::string("trace_view: -: ") + row.line + "\n");
        EXPECT_EQ(r.status, 1);
    }
    for (size_t n = 1; n + 1 < trace.size(); n += 7) {
        const Child_result r = run_program(TRACE_VIEW, {"-"}, trace.substr(0, n));
        EXPECT_EQ(r.status, 1) << n;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    for (const char* wrong : {"", "a b", "-x", "/none", "- --plot", "- --from x", "- --plot /none/x --from 1 --to 0.5",
                              "- --plot /dev/full", "--help >/dev/full"}) {
        Temporary_folder folder;
        write_file(folder.file("trace"), trace);
        const Child_result r = run_shell(std::string(TRACE_VIEW) + " " + wrong + " <" + folder.file("trace"));
        EXPECT_EQ(r.status, 2) << wrong;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
}

} // namespace
