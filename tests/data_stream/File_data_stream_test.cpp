// SPDX-License-Identifier: MIT
#include "glue/data_stream/File_checksummed_data_stream.h"
#include "glue/data_stream/File_data_stream.h"
#include "platform/crc32.h"
#include "support/Temporary_folder.h"
#include "support/capture.h"
#include "support/child.h"
#include <climits>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

std::string drain(Data_stream& s) {
    std::string bytes;
    while (s.bytes_avail(1)) {
        bytes += static_cast<char>(s[0]);
        s.drop(1);
    }
    return bytes;
}

unsigned put(Data_stream& s, const std::string& bytes) {
    return s.__write(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<unsigned>(bytes.size()));
}

TEST(Crc32, Is_the_common_one_and_chains) {
    EXPECT_EQ(Util::crc32(0, "123456789", 9), 0xCBF43926u);
    EXPECT_EQ(Util::crc32(0, "ZEW6", 4), 0xC9E521FBu);
    EXPECT_EQ(Util::crc32(Util::crc32(0, "1234", 4), "56789", 5), 0xCBF43926u);
    EXPECT_EQ(Util::crc32(0xCBF43926u, "x", 0), 0xCBF43926u);
    EXPECT_EQ(Util::crc32(0xCBF43926u, "x", -1), 0xCBF43926u);
}

class Files : public testing::Test {
protected:
    Temporary_folder folder;
    const std::string path = folder.file("a.txt");
};

TEST_F(Files, Reads_and_appends_ordinary_files) {
    File_data_stream s;
    EXPECT_FALSE(s.close_read() || s.close_write());
    EXPECT_EQ(put(s, "x"), UINT_MAX);
    EXPECT_FALSE(s.get_data(1));
    EXPECT_TRUE(s.get_data(0));
    EXPECT_EQ(s.get_length(), UINT_MAX);
    for (const char* text : {"hello ", "world"}) {
        ASSERT_TRUE(s.open_write(path.c_str()));
        EXPECT_EQ(put(s, text), strlen(text));
        EXPECT_TRUE(s.close_write());
    }
    EXPECT_EQ(read_file(path), "hello world");

    ASSERT_TRUE(s.open_read(path.c_str()));
    EXPECT_EQ(s[6], 'w');
    EXPECT_EQ(s.get_length(), 11u);
    EXPECT_FALSE(s.bytes_avail(12)) << "the end, with what is there buffered";
    EXPECT_EQ(s.bytes_avail(), 11);
    EXPECT_TRUE(s.close_read());
    s.drop_all();
    ASSERT_TRUE(s.open_read(::open(path.c_str(), O_RDONLY)));
    EXPECT_EQ(drain(s), "hello world");
}

TEST_F(Files, A_file_that_cannot_be_opened_ends_the_process) {
    const std::string missing = folder.file("none/a.txt");
    const struct {
        std::function<void(File_data_stream&)> call;
        int status;
        std::string text;
    } table[] = {
        {[&](File_data_stream& s) { s.open_read(missing.c_str()); }, 123, "Error opening file [" + missing + "]\n"},
        {[&](File_data_stream& s) { s.open_write(missing.c_str()); }, 122, "Error opening file [" + missing + "]\n"},
        {[&](File_data_stream& s) { s.open_read(999); }, 123, "Error opening fd [999]\n"}};
    for (const auto& row : table) {
        const Child_result child = run_child([&] {
            File_data_stream s;
            row.call(s);
        });
        EXPECT_EQ(child.status, row.status);
        EXPECT_EQ(child.err, row.text);
    }
}

TEST_F(Files, Exist_unless_they_are_known_to_be_missing) {
    EXPECT_FALSE(File_data_stream::exists(path.c_str()));
    write_file(path, "");
    EXPECT_TRUE(File_data_stream::exists(path.c_str()));
    EXPECT_TRUE(File_data_stream::exists((path + "/below").c_str())) << "not a folder: cannot be told";
}

// ---- checksummed files

class Checksummed : public Files {
protected:
    void save(const std::string& payload) {
        File_checksummed_data_stream s;
        ASSERT_TRUE(s.open_write(path.c_str()));
        // In uneven pieces: the checksum does not depend on them.
        for (size_t at = 0; at < payload.size(); at += 37) put(s, payload.substr(at, 37));
        ASSERT_TRUE(s.close_write());
    }
    /// Whether the file verifies, and what it yields or complains of.
    bool load(std::string& text) {
        File_checksummed_data_stream s;
        Capture err(stderr);
        const bool good = s.open_read(path.c_str());
        text = good ? drain(s) : err.text();
        return good;
    }
};

TEST_F(Checksummed, Files_have_a_trailer_of_16_bytes) {
    save("");
    EXPECT_EQ(read_file(path), "\n\nCRC32=5CA1AB1E");
    save("hello");
    EXPECT_EQ(read_file(path), "hello\n\nCRC32=BD1E346E");
}

TEST_F(Checksummed, Payloads_verify_up_to_255_bytes_and_in_multiples_of_them) {
    // Longer ones run the last chunk into the trailer; files in the field are verified this way.
    for (size_t n = 0; n <= 1100; ++n) {
        const std::string payload(n, 'p');
        save(payload);
        std::string text;
        const bool accepted = n <= 255 || n % 255 == 0;
        ASSERT_EQ(load(text), accepted) << n;
        EXPECT_EQ(text, accepted ? payload : "Error CRC32 mismatch on checksummed file [" + path + "]\n");
    }
}

TEST_F(Checksummed, A_zero_near_the_end_of_the_payload_is_refused) {
    for (size_t n = 1; n <= 10; ++n)
        for (size_t at = 0; at < n; ++at) {
            std::string payload(n, 'p');
            payload[at] = 0;
            save(payload);
            std::string text;
            // Payloads below 4 bytes are not looked at so far back.
            EXPECT_EQ(load(text), n < 4 || at + 4 < n) << n << " " << at;
        }
}

TEST_F(Checksummed, Damage_is_reported_and_nothing_is_read) {
    save("some payload");
    const std::string good = read_file(path);
    const auto reason = [&](const char* text) { return std::string(text) + path + "]\n"; };
    std::string text;
    const struct {
        std::string bytes;
        std::string complaint;
    } table[] = {{good.substr(0, 14), reason("Empty or truncated checksummed file [")},
                 {"", reason("Empty or truncated checksummed file [")},
                 {good.substr(0, 20), reason("Failure while reading CRC32 in checksummed file [")},
                 {good.substr(0, 21), reason("Error CRC32 mismatch on checksummed file [")},
                 {"S" + good.substr(1), reason("Error CRC32 mismatch on checksummed file [")},
                 {good + "more than five", reason("Failure while reading CRC32 in checksummed file [")},
                 {good.substr(0, 20) + "zzzzzzzz", reason("Failure while reading CRC32 in checksummed file [")}};
    for (const auto& row : table) {
        write_file(path, row.bytes);
        EXPECT_FALSE(load(text)) << row.bytes;
        EXPECT_EQ(text, row.complaint) << row.bytes;
    }
    write_file(path, "\nCRC32=5CA1AB1E"); // a trailer of 15 bytes and nothing before it
    EXPECT_TRUE(load(text));
    EXPECT_EQ(text, "");
    std::filesystem::remove(path);
    EXPECT_FALSE(load(text));
    EXPECT_EQ(text, reason("Error opening file ["));
}

TEST_F(Checksummed, Reading_ends_with_the_payload) {
    save("1234567");
    File_checksummed_data_stream s;
    ASSERT_TRUE(s.open_read(path.c_str()));
    EXPECT_FALSE(s.bytes_avail(10));
    EXPECT_EQ(s.bytes_avail(), 7);
    EXPECT_FALSE(s.bytes_avail(8));
    EXPECT_TRUE(s.close_read());
    EXPECT_FALSE(s.open_read(0)) << "a descriptor cannot be verified";
}

TEST_F(Checksummed, Writing_begins_anew_and_needs_an_open_file) {
    save("a longer payload");
    save("short");
    std::string text;
    EXPECT_TRUE(load(text));
    EXPECT_EQ(text, "short");

    File_checksummed_data_stream s;
    Capture err(stderr);
    EXPECT_FALSE(s.open_write(folder.file("none/x").c_str()));
    EXPECT_FALSE(s.close_write());
    EXPECT_EQ(put(s, "x"), UINT_MAX);
    EXPECT_EQ(s.get_crc(), File_checksummed_data_stream::seed) << "nothing was written, so nothing is covered";
    EXPECT_EQ(err.text(), "Error opening file [" + folder.file("none/x") + "]\nCRCFILE not open for write!\n");
}

TEST_F(Checksummed, A_file_with_a_write_error_gets_no_trailer) {
    File_checksummed_data_stream s;
    ASSERT_TRUE(s.open_write("/dev/full"));
    put(s, std::string(100000, 'x'));
    Capture err(stderr);
    EXPECT_TRUE(s.close_write());
    EXPECT_EQ(err.text(), "");
}

} // namespace
