// File size, whole-file read, write, append, MD5 digest and shell commands,
// all inside a private temporary directory.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "unit_support.h"

namespace unit {
namespace {

class FilesTest : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        char tmpl[] = "/tmp/mcu_unit_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        std::filesystem::remove_all(dir_);
        ModuleTest::TearDown();
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    std::string make(const std::string& name, const std::string& content) const {
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }
    static std::string content(const std::string& p) {
        std::ifstream in(p, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    static uint8_t* bytes(const char* s) {
        return reinterpret_cast<uint8_t*>(const_cast<char*>(s));
    }
    std::string dir_;
};

TEST_F(FilesTest, FileSize) {
    EXPECT_EQ(file_size(make("empty", "").c_str()), 0);
    EXPECT_EQ(file_size(make("five", "12345").c_str()), 5);
    ASSERT_EQ(symlink(path("five").c_str(), path("link").c_str()), 0);
    EXPECT_EQ(file_size(path("link").c_str()), 5);
    EXPECT_EQ(diag(), "");

    EXPECT_EQ(file_size(nullptr), -1);
    EXPECT_EQ(file_size(""), -1);
    EXPECT_EQ(file_size(path("missing").c_str()), -1);
    EXPECT_EQ(diag_lines(),
              "file_size #, null pointer\nfile_size #, null pointer\n"
              "file_size #, stat " +
                  path("missing") + " fail : No such file or directory\n");
}

TEST_F(FilesTest, ReadFileClearsOnlyTheGivenLength) {
    const std::string p = make("hello", "hello");
    uint8_t buf[16];
    memset(buf, 0xAA, sizeof buf);
    EXPECT_EQ(read_file(p.c_str(), buf, 10), 5);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), 5), "hello");
    for (int i = 5; i < 10; i++)
        EXPECT_EQ(buf[i], 0) << i;
    for (int i = 10; i < 16; i++)
        EXPECT_EQ(buf[i], 0xAA) << i;

    memset(buf, 0xAA, sizeof buf);
    EXPECT_EQ(read_file(p.c_str(), buf, 3), 3);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), 3), "hel");
    EXPECT_EQ(buf[3], 0xAA);
    EXPECT_EQ(diag(), "");
}

TEST_F(FilesTest, ReadFileFailures) {
    const std::string p = make("x", "x");
    uint8_t buf[4];
    EXPECT_EQ(read_file(p.c_str(), buf, 0), -1);
    EXPECT_EQ(read_file(nullptr, buf, 4), -1);
    EXPECT_EQ(read_file(p.c_str(), nullptr, 4), -1);
    EXPECT_EQ(read_file(path("missing").c_str(), buf, 4), -1);
    EXPECT_EQ(read_file(dir_.c_str(), buf, 4), -1);
    EXPECT_EQ(diag_lines(),
              "read_file #, params wrong\nread_file #, params wrong\n"
              "read_file #, params wrong\n"
              "read_file #, open " +
                  path("missing") +
                  " fail : No such file or directory\n"
                  "read_file #, read " +
                  dir_ + " fail : Is a directory\n");
}

TEST_F(FilesTest, WriteTruncatesAndAppendKeeps) {
    const std::string w = make("w", "0123456789");
    const std::string a = make("a", "0123456789");
    EXPECT_EQ(write_file(w.c_str(), bytes("abc"), 3), 3);
    EXPECT_EQ(append_file(a.c_str(), bytes("abc"), 3), 3);
    EXPECT_EQ(content(w), "abc");
    EXPECT_EQ(content(a), "0123456789abc");

    EXPECT_EQ(write_file(path("new_w").c_str(), bytes("xy"), 2), 2);
    EXPECT_EQ(append_file(path("new_a").c_str(), bytes("xy"), 2), 2);
    EXPECT_EQ(append_file(path("new_a").c_str(), bytes("z"), 1), 1);
    EXPECT_EQ(content(path("new_w")), "xy");
    EXPECT_EQ(content(path("new_a")), "xyz");
    EXPECT_EQ(diag(), "");
}

TEST_F(FilesTest, WriteAndAppendFailures) {
    const std::string nodir = path("nodir/f");
    EXPECT_EQ(write_file(path("f").c_str(), bytes("abc"), 0), -1);
    EXPECT_EQ(append_file(nullptr, bytes("abc"), 3), -1);
    EXPECT_EQ(write_file(nodir.c_str(), bytes("abc"), 3), -1);
    EXPECT_EQ(append_file(nodir.c_str(), bytes("abc"), 3), -1);
    EXPECT_EQ(diag_lines(),
              "write_file #, params wrong\nappend_file #, params wrong\n"
              "write_file #, open " +
                  nodir +
                  " fail : No such file or directory\n"
                  "append_file #, open " +
                  nodir + " fail : No such file or directory\n");
    EXPECT_FALSE(std::filesystem::exists(path("f")));
}

TEST_F(FilesTest, FailedWriteIsReportedWithItsResult) {
    if (access("/dev/full", W_OK) != 0)
        GTEST_SKIP() << "no /dev/full";
    EXPECT_EQ(write_file("/dev/full", bytes("abc"), 3), -1);
    EXPECT_EQ(diag_lines(),
              "write_file #, write /dev/full fail len = 3 ret = -1 : No space left on device\n");
}

TEST_F(FilesTest, Md5sumDigest) {
    char p[256];
    snprintf(p, sizeof p, "%s", make("abc", "abc").c_str());
    uint8_t buf[64];
    memset(buf, 0xAA, sizeof buf);
    EXPECT_EQ(calc_md5sum(p, buf, 64), 32);
    EXPECT_STREQ(reinterpret_cast<char*>(buf), "900150983cd24fb0d6963f7d28e17f72");

    // Only len - 1 bytes of the output are read.
    memset(buf, 0xAA, sizeof buf);
    EXPECT_EQ(calc_md5sum(p, buf, 17), 16);
    EXPECT_STREQ(reinterpret_cast<char*>(buf), "900150983cd24fb0");
    EXPECT_EQ(diag(), "");
}

TEST_F(FilesTest, Md5sumOfMissingFileIsEmpty) {
    char p[256];
    snprintf(p, sizeof p, "%s", path("missing").c_str());
    uint8_t buf[64];
    memset(buf, 0xAA, sizeof buf);
    ::testing::internal::CaptureStderr();
    int n = calc_md5sum(p, buf, 64);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(n, 0);
    EXPECT_EQ(buf[0], 0);
    EXPECT_NE(err.find("missing"), std::string::npos) << err;
}

TEST_F(FilesTest, Md5sumCommandIsCutAfterFiftySixPathCharacters) {
    // The path of "short" is exactly 56 characters; "long" is that path plus
    // a tail, which the 63-character command drops.
    std::string short_name(56 - dir_.size() - 1, 's');
    make(short_name, "abc");
    char p[256];
    snprintf(p, sizeof p, "%s", make(short_name + "_tail", "other").c_str());
    uint8_t buf[64];
    EXPECT_EQ(calc_md5sum(p, buf, 64), 32);
    EXPECT_STREQ(reinterpret_cast<char*>(buf), "900150983cd24fb0d6963f7d28e17f72");
}

TEST_F(FilesTest, Md5sumParameterChecks) {
    char p[] = "/etc/hostname";
    char empty[] = "";
    uint8_t buf[64];
    EXPECT_EQ(calc_md5sum(nullptr, buf, 64), -1);
    EXPECT_EQ(calc_md5sum(empty, buf, 64), -1);
    EXPECT_EQ(calc_md5sum(p, nullptr, 64), -1);
    EXPECT_EQ(calc_md5sum(p, buf, 0), -1);
    std::string four;
    for (int i = 0; i < 4; i++)
        four += "calc_md5sum #, params wrong\n";
    EXPECT_EQ(diag_lines(), four);
}

TEST_F(FilesTest, SystemRunsFormattedCommandAndIgnoresItsStatus) {
    EXPECT_EQ(my_system("printf '%%s-%d' %s > %s", 42, "hi", path("out").c_str()), 0);
    EXPECT_EQ(content(path("out")), "hi-42");
    EXPECT_EQ(my_system("exit 3"), 0);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(my_system("/nonexistent/mcu_unit_program"), 0);
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(diag(), "");
}

TEST_F(FilesTest, SystemCommandIsCutAt16383Characters) {
    auto command_of_length = [&](size_t total, const std::string& target) {
        std::string tail = "; touch " + target;
        return ": " + std::string(total - 2 - tail.size(), 'x') + tail;
    };
    EXPECT_EQ(my_system("%s", command_of_length(16383, path("kept1")).c_str()), 0);
    EXPECT_TRUE(std::filesystem::exists(path("kept1")));
    // One character too many: the last character of the path is lost.
    EXPECT_EQ(my_system("%s", command_of_length(16384, path("cut1")).c_str()), 0);
    EXPECT_FALSE(std::filesystem::exists(path("cut1")));
    EXPECT_TRUE(std::filesystem::exists(path("cut")));
}

}  // namespace
}  // namespace unit
