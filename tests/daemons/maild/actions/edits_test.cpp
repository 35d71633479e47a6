// A changed message takes the place of the stored one, and of nothing else.
#include "daemons/maild/actions/edits.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

class Replaced : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/vantrel-edits.XXXXXX";
        folder_ = mkdtemp(name);
        path_ = folder_ + "/message";
        Put(path_, "Subject: x\r\n\r\nold\r\n");
        file_ = platform::File::OpenRead(path_.c_str());
        edits_.Add({{14, 17}, "new"});
    }
    void TearDown() override { fs::remove_all(folder_); }

    static void Put(const std::string& path, const std::string& text) {
        std::ofstream(path) << text;
    }
    std::string Text() const {
        std::string text;
        return platform::ReadWholeFile(path_, text) ? text : "none";
    }
    bool Replace() { return maild::ReplaceStored(path_, file_.Descriptor(), edits_, why_); }
    auto Count() const {
        return std::distance(fs::directory_iterator(folder_), fs::directory_iterator());
    }

    std::string folder_;
    std::string path_;
    platform::File file_;
    maild::Edits edits_;
    std::string why_;
};

TEST_F(Replaced, InOneStep) {
    chmod(path_.c_str(), 0640);
    Put(path_ + ".new", "of a process that was killed");
    ASSERT_TRUE(Replace()) << why_;
    EXPECT_EQ(Text(), "Subject: x\r\n\r\nnew\r\n");
    struct stat info {};
    ASSERT_EQ(stat(path_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0640U);
    ASSERT_EQ(fstat(file_.Descriptor(), &info), 0);
    EXPECT_EQ(info.st_nlink, 0U) << "the old file's last name is gone";
    EXPECT_EQ(Count(), 1);
}

TEST_F(Replaced, NobodyWaitsForItAnyMore) {
    unlink(path_.c_str());
    EXPECT_FALSE(Replace());
    EXPECT_EQ(Count(), 0) << "it would stay in the spool";
    Put(path_, "another message");
    EXPECT_FALSE(Replace());
    EXPECT_EQ(Text(), "another message");
    EXPECT_EQ(Count(), 1);
}

TEST_F(Replaced, NotAtAllOrWhole) {
    fs::create_directories(path_ + ".new/full");
    EXPECT_FALSE(Replace());
    EXPECT_NE(why_, "");
    EXPECT_EQ(Text(), "Subject: x\r\n\r\nold\r\n");
    fs::remove_all(path_ + ".new");
    edits_.Add({{19, 400}, "behind its end"});
    EXPECT_FALSE(Replace());
    EXPECT_EQ(Text(), "Subject: x\r\n\r\nold\r\n");
    EXPECT_EQ(Count(), 1);
}

TEST(Edits, Stuffing) {
    using maild::Dots;
    using maild::Stuffed;
    EXPECT_EQ(Stuffed(".a\r\n..b\r\nc.\r\n.", Dots::kStuffed), "..a\r\n...b\r\nc.\r\n..");
    EXPECT_EQ(Stuffed(".a\r\n", Dots::kPlain), ".a\r\n");
}

}  // namespace
