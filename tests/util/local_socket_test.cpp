// SPDX-License-Identifier: MIT
#include "support/test.h"
#include "util/local_socket.h"
#include <sys/socket.h>
#include <sys/un.h>

using Util::connect_local;
using Util::Local_listener;

namespace {

int rights(const std::string& path) {
    struct stat s = {};
    return lstat(path.c_str(), &s) == 0 && S_ISSOCK(s.st_mode) ? static_cast<int>(s.st_mode & 0777) : -1;
}

/// A socket as a killed program leaves it.
void leave_socket(const std::string& path, int type = SOCK_STREAM) {
    struct sockaddr_un address;
    const unsigned size = Util::local_address(path.c_str(), address);
    const int fd = socket(AF_UNIX, type, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<struct sockaddr*>(&address), size), 0);
    close(fd);
}

TEST(local_socket, takes_the_place_of_a_killed_program_and_of_nothing_else) {
    const Temporary_folder folder;
    const mode_t before = umask(0);
    Local_listener first, second;
    const std::string stale = folder.file("stale"), file = folder.file("file"), live = folder.file("live");
    leave_socket(stale);
    write_file(file, "kept");
    ASSERT_TRUE(first.open(live.c_str()));
    const struct {
        std::string path;
        int reason; ///< 0: it is had
    } table[] = {{folder.file("new"), 0},
                 {stale, 0},
                 {live, EADDRINUSE},
                 {file, EEXIST},
                 {folder.path, EEXIST},
                 {folder.file("none/socket"), ENOENT},
                 {folder.file(std::string(108, 'x')), ENAMETOOLONG},
                 {"@abstract", EINVAL},
                 {"", ENOENT}};
    for (const auto& row : table) {
        EXPECT_EQ(second.open(row.path.c_str()) ? 0 : errno, row.reason) << row.path;
        EXPECT_EQ(second.fd() >= 0, row.reason == 0);
        EXPECT_TRUE(row.reason != 0 || rights(row.path) == 0600) << "whatever the mask";
    }
    umask(before);
    EXPECT_EQ(rights(stale), -1) << "closed by the next opening, and removed";
    EXPECT_EQ(read_file(file), "kept");
    const int fd = connect_local(live.c_str());
    EXPECT_GE(fd, 0) << "the one that was there is left alone";
    close(fd);
}

TEST(local_socket, removes_its_own_place_only) {
    const Temporary_folder folder;
    const std::string path = folder.file("socket");
    Local_listener first, second;
    ASSERT_TRUE(first.open(path.c_str()));
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_TRUE(second.open(path.c_str()));
    first.close();
    EXPECT_EQ(rights(path), 0600) << "it is the second one's by now";
    second.close();
    EXPECT_EQ(rights(path), -1);
    EXPECT_EQ(connect_local(path.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
}

} // namespace
