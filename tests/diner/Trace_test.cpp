// SPDX-License-Identifier: MIT
#include "glue/data_stream/Trace_stream.h"
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/diner/Trace.h"
#include "support/Test_diner.h"
#include "support/stress.h"
#include "support/test.h"
#include "util/assertion.h"
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

/// Phase, name and, where there is one, the number that a program gave.
std::string what(const QJsonObject& event) {
    const QJsonObject arguments = event["args"].toObject();
    QString all = event["ph"].toString() + ' ' + event["name"].toString() + ' ' + arguments["name"].toString();
    if (arguments.contains("number")) all += QString::number(arguments["number"].toInt());
    return all.trimmed().toStdString();
}

/// The events of a trace; none when it is not the JSON that viewers take.
struct Events : std::vector<QJsonObject> {
    explicit Events(const std::string& text) {
        QJsonParseError error;
        const QJsonDocument all = QJsonDocument::fromJson(QByteArray::fromStdString(text), &error);
        EXPECT_TRUE(all.isArray()) << error.errorString().toStdString() << text.substr(0, 300);
        for (const QJsonValue v : all.array()) push_back(v.toObject());
    }
    Events() : Events(written()) {}
    static std::string written() {
        std::string text;
        Trace::write(
            [](void* to, const char* s, size_t n) { return static_cast<std::string*>(to)->append(s, n), true; }, &text);
        return text;
    }
    long count(const std::string& wanted) const {
        return std::count_if(begin(), end(), [&](auto& e) { return what(e) == wanted; });
    }
    /// All but metadata.
    std::string summary() const {
        std::string all;
        for (const QJsonObject& e : *this) all += e["ph"] == "M" ? "" : what(e) + '\n';
        return all;
    }
};

TEST(Trace, joins_what_was_posted_to_what_was_handled) {
    ASSERT_TRUE(Trace::start(1024));
    Test_diner<> d("traced"), other("left\"out");
    d.begin();
    other.begin();
    EXPECT_VALUES("true false", Trace::set_diner("left\"out", false), Trace::set_diner("nobody", false));
    d.lock_gate.shut();
    d.post(1);
    ASSERT_TRUE(d.lock_gate.reached());
    using W = waiter_descriptor;
    for (auto how : {W::merge_duplicates, W::merge_duplicates, W::drop_duplicates})
        d.waiter.send_event({2000, 7, 0}, how);
    other.post(1);
    d.lock_gate.open();
    Timeout t;
    d.submit_timeout(t, 0);
    ASSERT_TRUE(wait_until([&] { return d.events == 3 && d.timeouts_handled == 1; }));
    d.terminate(true);
    Trace::stop();
    d.post(1); // and nobody sees it
    const Events events;
    const std::pair<const char*, int> counts[] = {{"X post to traced", 3}, // with the kill event
                                                  {"i merged for traced", 1},
                                                  {"i dropped for traced", 1},
                                                  {"B traced 2000/1", 1},
                                                  {"B traced 2000/7", 2}, // merged, so handled twice
                                                  {"i traced waits for a timeout", 1},
                                                  {"B traced timeout", 1},
                                                  {"i traced Run", 1},
                                                  {"i traced Term", 1},
                                                  {"i traced Unknown", 1},
                                                  {"E", 4},
                                                  {"X post to left\"out", 0}};
    for (const auto& [event, n] : counts) EXPECT_EQ(events.count(event), n) << event;
    EXPECT_GE(events.count("M thread_name traced"), 1) << "the thread's row has the diner's name";

    std::map<int, double> arrows;
    std::string ends;
    for (const QJsonObject& e : events) {
        const int id = e["id"].toInt();
        const double us = e["ts"].toDouble();
        if (e["ph"] == "s") arrows[id] = us;
        if (e["ph"] == "f") ends += texts(arrows.count(id) && arrows[id] <= us) + ' ';
    }
    EXPECT_EQ(ends, "true true true ");
}

TEST(Trace, keeps_what_a_program_says_and_escapes_it) {
    ASSERT_TRUE(Trace::start());
    {
        const Trace::Span outer("outer", -5);
        Trace::instant("quote\" back\\ line\n umlaut\xC3\xBC", INT32_MIN);
        Trace::instant(nullptr);
        Trace::set_kinds(Trace::kind_bit(Trace::span_end));
        Trace::instant("not recorded");
    }
    EXPECT_EQ(Events().summary(), "B outer -5\ni quote\" back\\ line? umlaut?? -2147483648\ni  0\nE\n");
    Trace::start(); // forgets, and has an end without its begin
    Trace::stop();
    Trace::set_kinds(Trace::all_kinds);
    Trace::put(Trace::span_end, 0, 0, 0);
    Trace::put(Trace::bytes_lost, 0, 12, Trace::short_name("/dev/ttyUSB0"));
    EXPECT_EQ(Events().summary(), "i bytes lost /ttyUSB0\n");
    Trace::start(); // a handler and a span in it whose ends are missing, and an end without its begin
    for (const Trace::Kind k : {Trace::handler_begin, Trace::span_begin, Trace::handler_begin, Trace::handler_end,
                                Trace::handler_end, Trace::span_begin, Trace::handler_end})
        Trace::put(k, 0, 1, 0);
    EXPECT_EQ(Events().summary(), "B  0/0\nB  1\nE\nE\nB  0/0\nE\nB  1\n");
    EXPECT_EQ(Trace::counts().recorded, 7u);
}

/// Threads fill the ring over and over while others write it out: what is written is whole, and in each thread's order.
TEST(Trace, is_whole_while_threads_record) {
    ASSERT_TRUE(Trace::start(64));
    constexpr int each = 40000, num_threads = 3;
    std::atomic<int> running{num_threads};
    Threads threads;
    for (int id = 0; id < num_threads; ++id)
        threads.emplace_back([&running] {
            for (int i = 1; i <= each; ++i) Trace::instant("step", i);
            --running;
        });
    uint64_t kept = 0;
    for (bool ended = false; !ended;) {
        if ((ended = running == 0)) threads.join();
        std::map<int, int> last;
        kept = 0;
        for (const QJsonObject& e : Events()) {
            const int number = e["args"].toObject()["number"].toInt();
            if (number == 0) continue;
            ASSERT_LT(std::exchange(last[e["tid"].toInt()], number), number);
            ++kept;
        }
    }
    const Trace::Counts counts = Trace::counts();
    const uint64_t size = counts.recorded - counts.overwritten; // 64, or what a test before has asked for
    EXPECT_VALUES(texts(each * num_threads, true, true), counts.recorded, kept + counts.dropped >= size, kept <= size);
}

TEST(Trace, goes_to_streams_and_files_and_says_when_it_cannot) {
    ASSERT_TRUE(Trace::start());
    Trace::instant("here");
    Trace::stop();
    Virtual_pair_data_stream pair(nullptr);
    pair.a.set_write_timeout(0);
    EXPECT_FALSE(write_trace(pair.a)) << "nobody reads, and it does not wait";
    Temporary_folder folder;
    const std::string path = folder.file("trace.json");
    EXPECT_VALUES("0 i here 0\n", Trace::write_file(path.c_str()), Events(read_file(path)).summary());
    EXPECT_EQ(debug_text([] { EXPECT_EQ(Trace::write_file("/dev/full"), ENOSPC); }),
              "Trace: cannot write /dev/full: No space left on device\n");
    EXPECT_FALSE(Trace::at_abort(std::string(256, 'x').c_str()));
}

TEST(Trace, is_left_behind_by_an_abort) {
    Temporary_folder folder;
    const std::string path = folder.file("abort.json");
    for (const char* to : {path.c_str(), "/dev/full", "/none/trace.json"}) {
        const Child_result aborted = run_child([to] {
            Trace::start(256);
            Trace::at_abort(to);
            Test_diner<> d("culprit");
            d.on_event = [](waiter_event&) { Util::flush_and_abort(); };
            d.begin();
            d.post(9);
            d.in_state(-1);
        });
        EXPECT_EQ(aborted.signal, SIGABRT);
    }
    const Events events(read_file(path));
    EXPECT_VALUES("1 0", events.count("B culprit 2000/9"), events.count("E")) << "the handler that has not ended";

    Trace::at_abort(nullptr);
    EXPECT_EQ(Trace::write_now(), ENOENT);
}

} // namespace
