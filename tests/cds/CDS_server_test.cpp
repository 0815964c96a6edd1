// SPDX-License-Identifier: MIT
#include "cds/Block_fixture.h"
#include "glue/cds/CDS_client.h"
#include "glue/cds/CDS_server.h"
#include "glue/data_stream/Posix_data_stream.h"
#include "support/Pty.h"
#include "support/test.h"
#include "util/local_socket.h"
#include <sys/socket.h>

using namespace CDS::Remote;
using namespace std::string_literals;

namespace {

std::string frame(char kind, const std::string& contents) {
    Frame f;
    f.kind = kind, f.tag = 7;
    f.contents = contents.data(), f.length = static_cast<int>(contents.size());
    char bytes[Frame::max_size];
    return std::string(bytes, static_cast<size_t>(f.write_to(bytes)));
}

void ask(int fd, const std::string& request) {
    ASSERT_EQ(write(fd, request.data(), request.size()), static_cast<ssize_t>(request.size()));
}

struct Served : testing::Test, Described_block {
    Served() { signal(SIGPIPE, SIG_IGN), block.engine.speed = 0x0102; }
    int connected() { return Util::connect_local(path.c_str()); }

    /// A program that looks at the block.
    struct Looker {
        explicit Looker(int fd, int ms = 5000) : stream(fd, fd) { stream.set_read_timeout(ms); }
        std::string speed() {
            std::string bytes;
            const Client::Result r = client.values(3, 0, bytes);
            return r == Client::done ? bytes : texts("failed", r);
        }
        Posix_data_stream stream;
        Client client{stream};
    };

    Manual_clock clock;
    const Temporary_folder folder;
    const std::string path = folder.file("socket");
};

TEST_F(Served, Is_answered_what_is_asked_and_changed_only_what_may_be_changed) {
    {
        const Scoped_lock<CDS::Head> held(head);
        CDS::Access_base(&head, offsetof(Block, levels), sizeof block.levels).reg(&inbox.waiter, 5);
    }
    const std::tuple<char, std::string, std::string, const char*> table[] = {
        // request; answer; who is woken
        {'V', "\6\0\0\0"s, "V\4\1\0\2\0\3\0\4\0"s, ""},
        {'V', "\1\0\x8\0"s, "V\7\0\0\0\1"s, ""},
        {'V', "\xFE\xFF\0\0"s, "V", ""},
        {'V', "\6\0\0"s, "V", ""},
        {'D', "\xFF\xFF\xFF\xFF", "D", ""},
        {'W', "\6\0\2\7\0\x8\0"s, "W\0"s, "5"},
        {'W', "\6\0\2\1\0\2"s, "W\3", ""},
        {'W', "\6\0\5"s + std::string(10, 'x'), "W\3", ""},
        {'W', "\6\0"s, "W\3", ""},
        {'W', "\3\0\1"s, "W\3", ""},
        {'W', "\3\0\xFF\xFF"s, "W\2", ""},
        {'W', "\4\0\1"s, "W\2", ""},
        {'W', "\2\0\1"s, "W\1", ""},
        {'W', "\0\0"s, "W\1", ""},
        {'?', "", "E\1", ""}};
    // The levels may be written, and the speed if it is not negative.
    const Write_rule rule = [this](const CDS::Lookup_item& item, Receive_buffer value) {
        short speed = 0;
        return &item == &items.levels || (&item == &items.speed && value.pop_INT16(speed) && speed >= 0);
    };
    Responder responder(items.root, rule);
    const auto send = [&](const std::string& bytes) {
        for (const char byte : bytes) { // byte by byte, and nothing before the last
            EXPECT_EQ(responder.step(), Responder::waiting);
            *responder.place() = byte;
            responder.received(1);
        }
        return responder.step();
    };
    for (const auto& [kind, request, answer, woken] : table) {
        EXPECT_EQ(send(frame(kind, request)), Responder::answered);
        const std::string got(responder.pending(), static_cast<size_t>(responder.num_pending()));
        EXPECT_VALUES(texts(frame(answer[0], answer.substr(1)), woken), got, inbox.targets()) << kind << request;
        responder.sent(responder.num_pending());
    }
    EXPECT_VALUES("7 8 3", block.levels[0], block.levels[1], block.levels[2]);
    std::string damaged = frame('D', "0000");
    damaged[5] ^= 1;
    EXPECT_EQ(send(damaged), Responder::malformed);
}

TEST_F(Served, Are_as_many_as_it_takes_and_the_silent_make_room) {
    Server server(items.root);
    ASSERT_TRUE(server.share(path.c_str()));
    EXPECT_VALUES(texts(false, EALREADY), server.share(path.c_str()), errno);
    std::deque<Looker> lookers;
    for (int i = 0; i < Server::max_clients; ++i, clock.advance(1))
        EXPECT_EQ(lookers.emplace_back(connected()).speed(), "\2\1");
    EXPECT_EQ(Looker(connected()).speed(), texts("failed", Client::busy));
    clock.advance(Server::idle_ms - 3);
    EXPECT_EQ(lookers[0].speed(), "\2\1") << "silent no more";
    EXPECT_EQ(lookers.emplace_back(connected()).speed(), "\2\1") << "in the place of the second";
    EXPECT_EQ(server.num_clients(), Server::max_clients);
    EXPECT_EQ(lookers[1].speed(), texts("failed", Client::no_answer));
    EXPECT_EQ(lookers[0].speed(), "\2\1");
    lookers.clear();
    EXPECT_TRUE(wait_until([&] { return server.num_clients() == 0; }));
}

TEST_F(Served, Who_does_harm_does_it_to_himself) {
    Server server(items.root);
    ASSERT_TRUE(server.share(path.c_str()));
    Looker good(connected()), garbage(connected());
    put(garbage.stream, std::string(100, '\xFF'));
    EXPECT_EQ(garbage.speed(), texts("failed", Client::no_answer));

    // One that asks without end and reads nothing: the socket fills up, and nothing is asked of it any more.
    const int greedy = connected();
    fcntl(greedy, F_SETFL, O_NONBLOCK);
    const std::string request = frame('D', std::string(4, '\0'));
    EXPECT_EQ(good.speed(), "\2\1");
    const uint32_t before = server.num_answers();
    const auto answered = [&](uint32_t n) { return wait_until([&] { return server.num_answers() == before + n; }); };
    for (int i = 0; i < Server::burst + 10; ++i) ask(greedy, request);
    EXPECT_TRUE(answered(Server::burst));
    EXPECT_EQ(good.speed(), "\2\1") << "although the other has used up its share";
    EXPECT_EQ(server.num_answers(), before + Server::burst + 1);
    clock.advance(Server::burst_ms);
    EXPECT_TRUE(answered(Server::burst + 11)) << server.num_answers() - before;
    // Full in both directions, or only until the server has read on.
    const auto full = [&] {
        clock.advance(Server::burst_ms);
        return write(greedy, request.data(), request.size()) < 0;
    };
    while (!full() || wait_until([&] { return !full(); }, std::chrono::milliseconds(100))) continue;
    EXPECT_EQ(good.speed(), "\2\1");
    {
        const Scoped_lock<CDS::Head> held(head);
        EXPECT_EQ(good.speed(), texts("failed", Client::locked)) << "and does not hang with the others";
    }
    close(greedy);
    EXPECT_TRUE(wait_until([&] { return server.num_clients() == 1; }));
}

TEST_F(Served, A_line_is_found_in_step_again_after_garbage_and_a_hang_up) {
    Pty pty;
    Server server(items.root);
    ASSERT_TRUE(server.serve(dup(pty.master))); // which hangs up while nobody has the other end
    for (int i = 0; i < 2; ++i) {
        Looker looker(open(pty.path.c_str(), O_RDWR | O_NOCTTY), 100);
        clock.advance(Server::retry_ms);
        put(looker.stream, frame('V', "").substr(0, 3)); // the rest is lost
        EXPECT_TRUE(wait_until([&] {
            clock.advance(Server::incomplete_ms);
            return looker.speed() == "\2\1";
        }));
        EXPECT_EQ(server.num_clients(), 1);
    }
}

TEST_F(Served, A_line_that_hung_up_with_its_answer_unsent_makes_room_for_the_next) {
    Server server(items.root); // its clock stands still, so that the line is not looked at again
    int gone[2], next[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, gone) | socketpair(AF_UNIX, SOCK_STREAM, 0, next), 0);
    ASSERT_EQ(shutdown(gone[1], SHUT_RD), 0); // the answer fails, whenever it comes
    ASSERT_TRUE(server.serve(gone[0]));
    ask(gone[1], frame('?', ""));
    EXPECT_TRUE(wait_until([&] { return server.num_answers() == 1; }));
    ASSERT_TRUE(server.serve(next[0]));
    EXPECT_EQ(Looker(next[1]).speed(), "\2\1");
    EXPECT_EQ(server.num_clients(), 1);
    close(gone[1]);
}

} // namespace
