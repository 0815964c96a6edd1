// SPDX-License-Identifier: MIT
#include "glue/data_stream/Trace_stream.h"
#include "glue/data_stream/Virtual_pair_data_stream.h"
#include "glue/diner/Trace.h"
#include "support/Temporary_folder.h"
#include "support/Test_diner.h"
#include "support/child.h"
#include "util/assertion.h"
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>
#include <map>
#include <thread>

namespace {

/// The events of a trace; none when it is not the JSON that viewers take.
std::vector<QJsonObject> events_of(const std::string& text) {
    QJsonParseError error;
    const QJsonDocument all = QJsonDocument::fromJson(QByteArray::fromStdString(text), &error);
    EXPECT_TRUE(all.isArray()) << error.errorString().toStdString() << text.substr(0, 300);
    std::vector<QJsonObject> events;
    for (const QJsonValue& v : all.array()) events.push_back(v.toObject());
    return events;
}

std::string written() {
    std::string text;
    Trace::write(
        [](void* to, const char* bytes, size_t n) {
            static_cast<std::string*>(to)->append(bytes, n);
            return true;
        },
        &text);
    return text;
}

std::string string_of(const QJsonObject& e, const char* key) { return e[key].toString().toStdString(); }

/// Phase, name and the number that a program gave, of all events but metadata.
std::string summary(const std::vector<QJsonObject>& events) {
    std::string all;
    for (const QJsonObject& e : events) {
        if (string_of(e, "ph") == "M") continue;
        all += string_of(e, "ph") + ' ' + string_of(e, "name");
        const QJsonObject arguments = e["args"].toObject();
        if (arguments.contains("number")) all += ' ' + std::to_string(arguments["number"].toInt());
        all += '\n';
    }
    return all;
}

size_t count_of(const std::vector<QJsonObject>& events, const std::string& phase, const std::string& name) {
    return static_cast<size_t>(std::count_if(events.begin(), events.end(), [&](const QJsonObject& e) {
        return string_of(e, "ph") == phase && string_of(e, "name") == name;
    }));
}

TEST(Trace, joins_what_was_posted_to_what_was_handled) {
    ASSERT_TRUE(Trace::start(1024));
    Test_diner<> d("traced"), other("left\"out");
    d.begin();
    other.begin();
    ASSERT_TRUE(Trace::set_diner("left\"out", false));
    EXPECT_FALSE(Trace::set_diner("nobody", false));
    const auto coalesced = waiter_event(2000, 7, 0);
    d.lock_gate.shut();
    d.post(1);
    ASSERT_TRUE(d.lock_gate.reached());
    for (int i = 0; i < 2; ++i) d.waiter.send_event(coalesced, waiter_descriptor::merge_duplicates);
    d.waiter.send_event(coalesced, waiter_descriptor::drop_duplicates);
    other.post(1);
    d.lock_gate.open();
    Timeout t;
    t.uid = 33;
    d.submit_timeout(t, 0);
    ASSERT_TRUE(wait_until([&] { return d.events == 3 && d.timeouts_handled == 1; }));
    d.terminate(true);
    Trace::stop();
    d.post(1); // and nobody sees it
    const std::vector<QJsonObject> events = events_of(written());

    const std::pair<const char*, const char*> once[] = {{"X", "post to traced"},
                                                        {"i", "merged for traced"},
                                                        {"i", "dropped for traced"},
                                                        {"B", "traced timeout"},
                                                        {"i", "traced waits for a timeout"},
                                                        {"i", "traced Run"},
                                                        {"i", "traced Term"},
                                                        {"i", "traced Unknown"},
                                                        {"B", "traced 2000/1"}};
    for (const auto& [phase, name] : once) EXPECT_GE(count_of(events, phase, name), 1u) << phase << ' ' << name;
    EXPECT_EQ(count_of(events, "X", "post to traced"), 3u); // two events and the kill event
    EXPECT_EQ(count_of(events, "B", "traced 2000/7"), 2u) << "a merged event is handled twice";
    EXPECT_EQ(count_of(events, "X", "post to left\"out"), 0u);

    std::map<int, int> depth; // of each thread
    std::map<int, double> arrows;
    double last_of_thread = 0;
    int ended_arrows = 0;
    for (const QJsonObject& e : events) {
        const std::string phase = string_of(e, "ph");
        const double at = e["ts"].toDouble();
        if (phase == "B") ++depth[e["tid"].toInt()];
        if (phase == "E") {
            EXPECT_GE(--depth[e["tid"].toInt()], 0);
        }
        if (phase == "s") arrows[e["id"].toInt()] = at;
        if (phase != "f") continue;
        ++ended_arrows;
        ASSERT_TRUE(arrows.count(e["id"].toInt()));
        EXPECT_LE(arrows[e["id"].toInt()], at);
        EXPECT_LE(last_of_thread, at);
        last_of_thread = at;
    }
    for (const auto& [thread, open] : depth) EXPECT_EQ(open, 0) << thread;
    EXPECT_EQ(ended_arrows, 3);
    const auto named = std::find_if(events.begin(), events.end(), [](const QJsonObject& e) {
        return e["args"].toObject()["name"].toString() == "traced";
    });
    EXPECT_NE(named, events.end()) << "the thread's row has the diner's name";
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
    EXPECT_EQ(summary(events_of(written())), "B outer -5\ni quote\" back\\ line? umlaut?? -2147483648\ni  0\nE \n");
    Trace::start(); // forgets, and has an end without its begin
    Trace::stop();
    Trace::set_kinds(Trace::all_kinds);
    Trace::put(Trace::span_end, 0, 0, 0);
    Trace::put(Trace::bytes_lost, 0, 12, Trace::short_name("/dev/ttyUSB0"));
    EXPECT_EQ(summary(events_of(written())), "i bytes lost /ttyUSB0\n" + std::string());
    Trace::start(); // a handler and a span in it whose ends are missing, and an end without its begin
    for (const Trace::Kind k : {Trace::handler_begin, Trace::span_begin, Trace::handler_begin, Trace::handler_end,
                                Trace::handler_end, Trace::span_begin, Trace::handler_end})
        Trace::put(k, 0, 1, 0);
    EXPECT_EQ(summary(events_of(written())), "B  0/0\nB  1\nE \nE \nB  0/0\nE \nB  1\n");
    EXPECT_EQ(Trace::counts().recorded, 7u);
}

/// Threads fill the ring over and over while others write it out: what is written is whole, and in each thread's order.
TEST(Trace, is_whole_while_threads_record) {
    ASSERT_TRUE(Trace::start(64));
    constexpr int each = 40000, num_threads = 3;
    std::atomic<int> running{num_threads};
    std::vector<std::thread> threads;
    for (int id = 0; id < num_threads; ++id) {
        threads.emplace_back([&running] {
            for (int i = 0; i < each; ++i) Trace::instant("step", i);
            --running;
        });
    }
    do {
        std::map<int, int> last;
        for (const QJsonObject& e : events_of(written())) {
            if (string_of(e, "name") != "step") continue;
            const int thread = e["tid"].toInt(), step = e["args"].toObject()["number"].toInt();
            const auto before = last.find(thread);
            if (before != last.end()) {
                ASSERT_LT(before->second, step);
            }
            last[thread] = step;
        }
    } while (running > 0);
    for (std::thread& t : threads) t.join();
    const Trace::Counts counts = Trace::counts();
    EXPECT_EQ(counts.recorded, static_cast<uint64_t>(each) * num_threads);
    const uint64_t size = counts.recorded - counts.overwritten; // 64, or what a test before has asked for
    const size_t kept = count_of(events_of(written()), "i", "step");
    EXPECT_GE(kept + counts.dropped, size);
    EXPECT_LE(kept, size);
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
    EXPECT_EQ(Trace::write_file(path.c_str()), 0);
    EXPECT_EQ(summary(events_of(read_file(path))), "i here 0\n");
    EXPECT_EQ(debug_text([] { EXPECT_EQ(Trace::write_file("/dev/full"), ENOSPC); }),
              "Trace: cannot write /dev/full: No space left on device\n");
    EXPECT_FALSE(Trace::at_abort(std::string(256, 'x').c_str()));
}

TEST(Trace, is_left_behind_by_an_abort_and_written_on_a_signal) {
    Temporary_folder folder;
    const std::string path = folder.file("abort.json");
    const Child_result aborted = run_child([&] {
        Trace::start(256);
        Trace::at_abort(path.c_str());
        Test_diner<> d("culprit");
        d.on_event = [](waiter_event&) { Util::flush_and_abort(); };
        d.begin();
        d.post(9);
        d.in_state(-1);
    });
    EXPECT_EQ(aborted.signal, SIGABRT);
    const std::vector<QJsonObject> events = events_of(read_file(path));
    EXPECT_EQ(count_of(events, "B", "culprit 2000/9"), 1u);
    EXPECT_EQ(count_of(events, "E", ""), 0u) << "the handler that has not ended";

    for (const char* hopeless : {"/dev/full", "/none/trace.json"}) {
        EXPECT_EQ(run_child([&] {
                      Trace::start(256);
                      Trace::at_abort(hopeless);
                      Util::flush_and_abort();
                  }).signal,
                  SIGABRT);
    }

    Trace::start();
    Trace::instant("before the signal");
    ASSERT_TRUE(Trace::at_abort(path.c_str()));
    ASSERT_TRUE(Trace::write_on_signal(SIGUSR1));
    raise(SIGUSR1);
    EXPECT_EQ(count_of(events_of(read_file(path)), "i", "before the signal"), 1u);
    Trace::at_abort(nullptr);
    EXPECT_EQ(Trace::write_now(), ENOENT);
    signal(SIGUSR1, SIG_DFL);
}

} // namespace
