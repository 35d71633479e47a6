// The log's file: whole lines in each, its size, and what becomes of one that is moved away.
#include "daemons/logd/log_file.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

namespace fs = std::filesystem;

class LogFileTest : public testing::Test {
  protected:
    LogFileTest() {
        std::string place = (fs::temp_directory_path() / "logfile.XXXXXX").string();
        EXPECT_NE(mkdtemp(place.data()), nullptr);
        directory = place;
        path = place + "/log";
    }
    ~LogFileTest() override { fs::remove_all(directory); }
    std::string Text(const std::string& suffix = "") const {
        std::ifstream file(path + suffix);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    fs::path directory;
    std::string path;
    LogFile log;
};

TEST_F(LogFileTest, LinesThatComeTogetherAreParted) {
    ASSERT_TRUE(log.Open(path, 10));
    log.Write("one\ntwo\nthree\nfour\nfive\n");
    EXPECT_EQ(Text(".2"), "one\ntwo\nthree\n");
    EXPECT_EQ(Text(".1"), "four\nfive\n");
    EXPECT_EQ(Text(), "");
    log.Write("a line that is longer than a file\n");
    log.Write("x\n");
    EXPECT_EQ(Text(".1"), "a line that is longer than a file\n");
    EXPECT_EQ(Text(), "x\n");
    log.Write("1234567890\n1234567891\n1234567892\n");
    EXPECT_EQ(Text(".1"), "1234567892\n");
    EXPECT_EQ(Text(".3"), "x\n1234567890\n");
    EXPECT_EQ(Text(".4"), "a line that is longer than a file\n");
    EXPECT_FALSE(fs::exists(path + ".5"));
}

TEST_F(LogFileTest, AFileThatIsMovedAwayOrRemovedIsBegunAnew) {
    ASSERT_TRUE(log.Open(path, 1000));
    log.Write("one\n");
    fs::rename(path, path + ".moved");
    log.Write("two\n");
    EXPECT_EQ(Text(".moved"), "one\n");
    EXPECT_EQ(Text(), "two\n");
    fs::remove(path);
    log.Write("three\n");
    EXPECT_EQ(Text(), "three\n");
}

}  // namespace
