// SPDX-License-Identifier: MIT
#include "apps/Commands.h"

using trace_view = Commands;

namespace {

const std::string head = "[\n{\"ph\":\"M\",\"pid\":1,\"tid\":1,\"name\":\"kavqtglue_trace\",\"args\":{\"format\":1,"
                         "\"recorded\":20,\"kept\":12,\"dropped\":3}}";

/// A record: its phase, its time [us] and its thread, and what else it says in single quotes.
std::string event(const char* phase, double us, int thread, std::string rest = "") {
    std::replace(rest.begin(), rest.end(), '\'', '"');
    return text_of(",\n{\"ph\":\"%s\",\"pid\":1,\"tid\":%d,\"ts\":%.3f%s}", phase, thread, us, rest.c_str());
}
std::string post(double us, int node, int queue) {
    return event("X", us, 7,
                 text_of(",'name':'post to PUMP','cat':'post','args':{'diner':'PUMP','node':%d,'queue':%d,'free':9}",
                         node, queue));
}
std::string handler(double us, int node) {
    return event("B", us, 8, text_of(",'name':'PUMP 2000/1','cat':'event','args':{'diner':'PUMP','node':%d}", node));
}

const std::string trace =
    head + ",\n{\"ph\":\"M\",\"pid\":1,\"tid\":8,\"name\":\"thread_name\",\"args\":{\"name\":\"PUMP\"}}" +
    post(1000000, 1, 1) + event("C", 1000000, 7, ",'name':'free event nodes','args':{'nodes':996}") +
    handler(1000010, 1) + post(1000020, 2, 2) + event("E", 1000110, 8) + handler(1000120, 2) +
    event("B", 1000125, 8, ",'name':'own','cat':'program','args':{'number':1}") + event("E", 1000130, 8) +
    event("E", 1000420, 8) +
    event("B", 1500000, 8, ",'name':'PUMP timeout','cat':'timeout','args':{'diner':'PUMP','uid':1,'late_ms':30}") +
    event("i", 1600000, 7, ",'s':'t','name':'refused by PUMP','cat':'post','args':{'diner':'PUMP','module':1}") +
    "\n]\n";

TEST_F(trace_view, tells_of_each_diner_and_draws) {
    const std::string got = answer("trace_view - --plot picture --to 0.001", trace);
    EXPECT_EQ(got.rfind("0 0.600 s with 12 records (8 older ones overwritten, 3 dropped)", 0), 0u);
    expect_in(
        got,
        {"Free event nodes at least 996.",
         "PUMP               2        1     200.0     300.0     300.0      55.0     100.0     100.0      2        1\n",
         "Longest handlers\n      at [s]  length [us] late [ms]\n"
         "    0.500000     100000.0       30  PUMP timeout, still running\n"
         "    0.000120        300.0        0  PUMP 2000/1\n",
         "Latest timeouts\n      at [s]  length [us] late [ms]\n    0.500000 "});
    expect_in(read_file("picture"), {"<title>PUMP 2000/1, 300.0 us</title>", ">thread 7</text>", "!still running"});
    answer("trace_view - --plot picture --from 0.4 --to 0.55", trace);
    expect_in(read_file("picture"), {"!2000/1", "still running"});
    // A span of less than what a number so far from 0 can tell, and a handler whose end was not recorded.
    expect_in(answer("trace_view - --plot /dev/null --from 999999999 --to 999999999.0000001",
                     head + handler(0, 1) + event("E", 9e6, 8, ",'args':{'lost':1}") + "\n]\n"),
              {"    0.000000          0.0        0  PUMP 2000/1, its end is lost\n"});
}

TEST_F(trace_view, says_in_one_line_what_is_wrong) {
    for (const auto& [bytes, complaint] :
         {std::pair<std::string, std::string>{"", "1: it is no trace"},
          {"garbage\n", "1: it is no trace"},
          {"[\n{\"ph\":\"M\",\"name\":\"other\"},\n]\n", "2: it is no trace"},
          {"[\n]\n", "2: it is no trace"},
          {head + ",\n{\"ph\":\"B\"}\n]\n", "3: an event without a time"},
          {head + ",\nxyz,\n]\n", "3: no event"},
          {head + "\n{}\n]\n", "3: a line behind the last one"},
          {head + ",\n" + std::string(5000, 'x') + "\n", "3: a line that is too long"}})
        expect_complaints({{"trace_view -", "1 -: line " + complaint, bytes}});
    expect_cuts_told("trace_view -", trace.substr(0, trace.size() - 1), 7);
    for (const char* plot : {"/none/x", "/dev/full"})
        EXPECT_EQ(answer(std::string("trace_view - --plot ") + plot, trace).substr(0, 2), "2 ");
    EXPECT_EQ(answer("trace_view - --plot x --from 1 --to 0.5", trace).substr(0, 41),
              "2 trace_view: --to must be behind --from\n");
}

} // namespace
