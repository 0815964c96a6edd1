// SPDX-License-Identifier: MIT
#include "support/test.h"
#include "util/local_socket.h"
#include <sys/socket.h>
#include <sys/un.h>

namespace {

TEST(local_socket, takes_the_place_of_a_killed_program_and_removes_its_own_and_nothing_else) {
    const auto rights = [](const std::string& path) {
        struct stat s = {};
        return lstat(path.c_str(), &s) == 0 && S_ISSOCK(s.st_mode) ? static_cast<int>(s.st_mode & 0777) : -1;
    };
    const Temporary_folder folder;
    const std::string stale = folder.file("stale"), file = folder.file("file"), live = folder.file("live");
    Util::Local_listener first, second;
    struct sockaddr_un address;
    const unsigned size = Util::local_address(stale.c_str(), address);
    const int killed = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_VALUES("0 0", bind(killed, reinterpret_cast<struct sockaddr*>(&address), size), close(killed));
    write_file(file, "kept");
    const mode_t before = umask(0);
    ASSERT_TRUE(first.open(live.c_str()));
    // 0: it is had
    const std::pair<std::string, int> rows[] = {{folder.file("new"), 0},
                                                {stale, 0},
                                                {live, EADDRINUSE},
                                                {file, EEXIST},
                                                {folder.path, EEXIST},
                                                {folder.file("none/socket"), ENOENT},
                                                {folder.file(std::string(108, 'x')), ENAMETOOLONG},
                                                {"@abstract", EINVAL},
                                                {"", ENOENT}};
    for (const auto& [path, reason] : rows) {
        EXPECT_EQ(second.open(path.c_str()) ? 0 : errno, reason) << path;
        EXPECT_TRUE(second.fd() < 0 ? reason != 0 : rights(path) == 0600) << path << " whatever the mask";
    }
    umask(before);
    EXPECT_VALUES("-1 kept", rights(stale), read_file(file)) << "closed by the next opening, and removed";
    const int fd = Util::connect_local(live.c_str());
    EXPECT_VALUES("true 0 0", fd >= 0, close(fd), unlink(live.c_str())) << "the one that was there is left alone";
    EXPECT_TRUE(second.open(live.c_str()));
    first.close();
    EXPECT_EQ(rights(live), 0600) << "it is the second one's by now";
    const int last = second.fd();
    second.close();
    EXPECT_VALUES(texts(-1, -1, -1, ENOENT), rights(live), fcntl(last, F_GETFD), Util::connect_local(live.c_str()),
                  errno);
}

} // namespace
