// SPDX-License-Identifier: MIT
#include "cds/Block_fixture.h"
#include "glue/cds/CDS_client.h"
#include "glue/cds/CDS_server.h"
#include "glue/cds/CDS_value_text.h"
#include "glue/data_stream/Posix_data_stream.h"
#include "support/Pty.h"
#include "support/test.h"
#include "util/local_socket.h"
#include <sys/socket.h>

using namespace CDS::Remote;

namespace {

std::string frame(char kind, const std::string& contents, unsigned char tag = 7) {
    Frame f;
    f.kind = kind, f.tag = tag;
    f.contents = contents.data(), f.length = static_cast<int>(contents.size());
    char bytes[Frame::max_size];
    return std::string(bytes, static_cast<size_t>(f.write_to(bytes)));
}

std::string u2(unsigned n) { return {static_cast<char>(n), static_cast<char>(n >> 8)}; }
std::string id(const Data_item& item) { return u2(item.id); }

struct Served {
    Served() {
        block.engine.speed = 0x0102;
        for (int i = 0; i < 4; ++i) block.levels[i] = static_cast<unsigned short>(i + 1);
    }
    Write_rule levels_and_speed() {
        return [this](const CDS::Lookup_item& item, Receive_buffer value) {
            short speed = 0;
            return &item == &items.levels || (&item == &items.speed && value.pop_INT16(speed) && speed >= 0);
        };
    }
    module_man modules;
    CDS::Head head{&modules, 0};
    Block block{};
    Block_items items{head, block};
};

TEST(CDS_responder, answers_what_is_asked_and_changes_only_what_may_be_changed) {
    Served s;
    Block_items& items = s.items;
    Inbox inbox(s.modules);
    CDS::Access_base range(&s.head, offsetof(Block, levels), sizeof s.block.levels);
    {
        const Scoped_lock<CDS::Head> held(s.head);
        range.reg(&inbox.waiter, 5);
    }
    const std::string all = id(items.root);
    const Write_rule rule = s.levels_and_speed();
    const struct {
        std::string request, answer;
        const char* woken;
    } table[] = {
        {frame('V', id(items.levels) + u2(0)), frame('V', {"\4\1\0\2\0\3\0\4\0", 9}), ""},
        {frame('V', all + id(items.counter)), frame('V', std::string(5, '\0')), ""},
        {frame('V', u2(0xFFFE) + u2(0)), frame('V', ""), ""},
        {frame('V', "x"), frame('V', ""), ""},
        {frame('D', {"\xFF\xFF\xFF\xFF", 4}), frame('D', ""), ""},
        {frame('W', id(items.levels) + std::string("\2\7\0\x8\0", 5)), frame('W', {"\0", 1}), "5"},
        {frame('W', id(items.levels) + std::string("\2\1\0\2", 4)), frame('W', "\3"), ""},
        {frame('W', id(items.levels) + std::string("\5") + std::string(10, 'x')), frame('W', "\3"), ""},
        {frame('W', id(items.levels)), frame('W', "\3"), ""},
        {frame('W', id(items.speed) + "\1"), frame('W', "\3"), ""},
        {frame('W', id(items.speed) + "\xFF\xFF"), frame('W', "\2"), ""},
        {frame('W', id(items.mode) + "\1"), frame('W', "\2"), ""},
        {frame('W', id(items.engine) + "\1"), frame('W', "\1"), ""},
        {frame('W', u2(0)), frame('W', "\1"), ""},
        {frame('?', ""), frame('E', "\1"), ""},
    };
    Responder responder(items.root, rule);
    for (const auto& row : table) {
        for (size_t n = 0; n < row.request.size(); ++n) { // byte by byte, and nothing before the last
            EXPECT_EQ(responder.step(), Responder::waiting);
            *responder.place() = row.request[n];
            responder.received(1);
        }
        EXPECT_EQ(responder.step(), Responder::answered);
        EXPECT_EQ(std::string(responder.pending(), static_cast<size_t>(responder.num_pending())), row.answer);
        responder.sent(responder.num_pending());
        EXPECT_EQ(inbox.targets(), row.woken);
    }
    EXPECT_EQ(s.block.levels[1], 8);
    EXPECT_EQ(s.block.levels[2], 3);
    std::string damaged = frame('D', "0000");
    damaged[5] ^= 1;
    memcpy(responder.place(), damaged.data(), damaged.size());
    responder.received(static_cast<int>(damaged.size()));
    EXPECT_EQ(responder.step(), Responder::malformed);
}

TEST(CDS_value_text, reads_what_it_wrote_and_refuses_the_rest) {
    const struct {
        Data_item::item_type_t type;
        const char *text, *again; ///< null: refused
    } table[] = {{Data_item::item_bool, "true", "true"},      {Data_item::item_bool, "0", "false"},
                 {Data_item::item_bool, "yes", nullptr},      {Data_item::item_char, "200", "200"},
                 {Data_item::item_int16, "-0x8000", nullptr}, {Data_item::item_int16, "-32768", "-32768"},
                 {Data_item::item_int16, "32768", nullptr},   {Data_item::item_uint16, "0xFfff", "65535"},
                 {Data_item::item_uint8, "-1", nullptr},      {Data_item::item_uint64, "+7", "7"},
                 {Data_item::item_float, "0.1", "0.1"},       {Data_item::item_double, "1e300", "1e+300"},
                 {Data_item::item_float, "1e300", nullptr},   {Data_item::item_int32, "12 ", nullptr},
                 {Data_item::item_int32, "", nullptr},        {Data_item::item_struct, "1", nullptr}};
    for (const auto& row : table) {
        char bytes[8];
        Send_buffer out(bytes, 0, sizeof bytes);
        ASSERT_EQ(append_text(out, row.type, row.text), row.again != nullptr) << row.text;
        Receive_buffer in(bytes, static_cast<int>(out.position - bytes));
        EXPECT_EQ(in.remaining, row.again ? value_width(row.type) : 0) << row.text;
        std::string again;
        EXPECT_TRUE(!row.again || (pop_text(in, row.type, again) && again == row.again)) << again;
    }
}

/// A program that looks at a served block.
struct Looker {
    explicit Looker(int fd, int ms = 5000) : stream(fd, fd), client(stream) { stream.set_read_timeout(ms); }
    std::string speed(const Served& s) {
        std::string bytes;
        const Client::Result r = client.values(s.items.speed.id, 0, bytes);
        return r == Client::done ? bytes : "failed " + std::to_string(r);
    }
    Posix_data_stream stream;
    Client client;
};

TEST(CDS_server, serves_as_many_as_it_takes_and_lets_the_silent_make_room) {
    signal(SIGPIPE, SIG_IGN);
    Manual_clock clock;
    Served s;
    const Temporary_folder folder;
    const std::string path = folder.file("socket");
    Server server(s.items.root, s.levels_and_speed());
    ASSERT_TRUE(server.share(path.c_str()));
    EXPECT_VALUES(texts(false, EALREADY), server.share(path.c_str()), errno);
    std::vector<std::unique_ptr<Looker>> lookers;
    const auto come = [&] { return std::make_unique<Looker>(Util::connect_local(path.c_str())); };
    for (int i = 0; i < Server::max_clients; ++i) {
        lookers.push_back(come());
        EXPECT_EQ(lookers.back()->speed(s), "\2\1");
        clock.advance(1);
    }
    EXPECT_EQ(come()->speed(s), "failed " + std::to_string(Client::busy));
    clock.advance(Server::idle_ms - 3);
    EXPECT_EQ(lookers[0]->speed(s), "\2\1") << "silent no more";
    lookers.push_back(come());
    EXPECT_EQ(lookers.back()->speed(s), "\2\1") << "in the place of the second";
    EXPECT_EQ(server.num_clients(), Server::max_clients);
    EXPECT_EQ(lookers[1]->speed(s), "failed " + std::to_string(Client::no_answer));
    EXPECT_EQ(lookers[0]->speed(s), "\2\1");

    Frame::Write_result result;
    EXPECT_EQ(lookers[0]->client.write(s.items.speed.id, {"\3\0", 2}, result), Client::done);
    EXPECT_EQ(result, Frame::written);
    std::string text;
    EXPECT_EQ(lookers[2]->client.description(text), Client::done);
    EXPECT_EQ(text.compare(0, 2, "1:"), 0);
    lookers.clear();
    EXPECT_TRUE(wait_until([&] { return server.num_clients() == 0; }));
}

TEST(CDS_server, who_does_harm_does_it_to_himself) {
    signal(SIGPIPE, SIG_IGN);
    Manual_clock clock;
    Served s;
    const Temporary_folder folder;
    Server server(s.items.root);
    ASSERT_TRUE(server.share(folder.file("socket").c_str()));
    const auto come = [&] { return Util::connect_local(folder.file("socket").c_str()); };
    Looker good(come()), garbage(come());
    put(garbage.stream, std::string(100, '\xFF'));
    EXPECT_EQ(garbage.speed(s), "failed " + std::to_string(Client::no_answer));

    // One that asks without end and reads nothing: the socket fills up, and nothing is asked of it any more.
    const int greedy = come();
    fcntl(greedy, F_SETFL, O_NONBLOCK);
    const std::string request = frame('D', std::string(4, '\0'));
    EXPECT_EQ(good.speed(s), "\2\1");
    const uint32_t before = server.num_answers();
    for (int i = 0; i < Server::burst + 10; ++i)
        ASSERT_EQ(write(greedy, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    EXPECT_TRUE(wait_until([&] { return server.num_answers() == before + Server::burst; }));
    EXPECT_EQ(good.speed(s), "\2\1") << "although the other has used up its share";
    EXPECT_EQ(server.num_answers(), before + Server::burst + 1);
    clock.advance(Server::burst_ms);
    EXPECT_TRUE(wait_until([&] { return server.num_answers() == before + Server::burst + 11; }))
        << server.num_answers() - before;
    // Full in both directions, or only until the server has read on.
    const auto full = [&] {
        clock.advance(Server::burst_ms);
        return write(greedy, request.data(), request.size()) < 0;
    };
    while (!full() || wait_until([&] { return !full(); }, std::chrono::milliseconds(100))) {
    }
    EXPECT_EQ(good.speed(s), "\2\1");
    {
        const Scoped_lock<CDS::Head> held(s.head);
        EXPECT_EQ(good.speed(s), "failed " + std::to_string(Client::locked)) << "and does not hang with the others";
    }
    close(greedy);
    EXPECT_TRUE(wait_until([&] { return server.num_clients() == 1; }));
}

TEST(CDS_server, finds_a_line_in_step_again_after_garbage_and_a_hang_up) {
    Manual_clock clock;
    Served s;
    Pty pty;
    Server server(s.items.root);
    ASSERT_TRUE(server.serve(dup(pty.master))); // which hangs up while nobody has the other end
    const auto come = [&] { return open(pty.path.c_str(), O_RDWR | O_NOCTTY); };
    for (int i = 0; i < 2; ++i) {
        Looker looker(come(), 100);
        clock.advance(Server::retry_ms);
        put(looker.stream, frame('V', "").substr(0, 3)); // the rest is lost
        EXPECT_TRUE(wait_until([&] {
            clock.advance(Server::incomplete_ms);
            return looker.speed(s) == "\2\1";
        }));
        EXPECT_EQ(server.num_clients(), 1);
    }
}

TEST(CDS_server, a_line_that_hung_up_with_its_answer_unsent_makes_room_for_the_next) {
    Manual_clock clock; // stands still, so that the line is not looked at again
    Served s;
    Server server(s.items.root);
    int gone[2], next[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, gone), 0);
    ASSERT_EQ(shutdown(gone[1], SHUT_RD), 0); // the answer fails, whenever it comes
    ASSERT_TRUE(server.serve(gone[0]));
    const std::string request = frame('?', "");
    ASSERT_EQ(write(gone[1], request.data(), request.size()), static_cast<ssize_t>(request.size()));
    EXPECT_TRUE(wait_until([&] { return server.num_answers() == 1; }));
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, next), 0);
    ASSERT_TRUE(server.serve(next[0]));
    Looker looker(next[1]);
    EXPECT_EQ(looker.speed(s), "\2\1");
    EXPECT_EQ(server.num_clients(), 1);
    close(gone[1]);
}

} // namespace
