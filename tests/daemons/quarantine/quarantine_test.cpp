// How messages are kept and found, and who may send one on.
#include <sys/stat.h>

#include <fstream>
#include <future>

#include "daemons/quarantine/form.h"
#include "quarantine_fixture.h"
#include "support/instance.h"

namespace quarantine {
namespace {

TEST_F(Kept, AsItsReaderHasIt) {
    EXPECT_EQ(Ids(), std::vector<std::string>());
    const std::string id =
        Keep("Subject: =?utf-8?q?h=C3=BC?=\r\n\r\n..x\r\n\n..y\r\n", {}, maild::Dots::kStuffed);
    ASSERT_NE(id, "") << complaint_;
    EXPECT_EQ(Text(id), "Subject: =?utf-8?q?h=C3=BC?=\r\n\r\n.x\r\n\n..y\r\n");
    const auto found = store_.Find(id, complaint_);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->subject, "h\xC3\xBC");
    EXPECT_EQ(found->size, static_cast<long long>(Text(id).size()));
    EXPECT_EQ(found->recipients, "a@example.org;b@example.org");
    struct stat info {};
    for (const std::string& name : Files()) {
        ASSERT_EQ(stat((folder_ + "/" + name).c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0077U, 0U) << name;
    }
    EXPECT_TRUE(store_.Delete(id, complaint_));
    EXPECT_EQ(Files(), std::vector<std::string>());
    EXPECT_FALSE(store_.Delete(id, complaint_));
}

TEST_F(Kept, FormHoldsAnyBytes) {
    KeptMessage message;
    message.id = "20260101T000000-0";
    message.at = 1234567890123;
    message.size = 77;
    message.sender = "a\\x41\r\nid: other\x80\xFF";
    message.reason = std::string("nul\0\x1b", 5);
    message.state = quarantine::state::kOriginal;
    const auto back = quarantine::ReadForm(quarantine::WriteForm(message));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->sender, message.sender);
    EXPECT_EQ(back->reason, message.reason);
    EXPECT_EQ(back->id, message.id);
    EXPECT_EQ(back->at, message.at);
    EXPECT_EQ(back->size, message.size);
    EXPECT_EQ(back->state, message.state);
    for (const char* text : {"", "id: ../x\n", "id: \n", "sender: x\n"})
        EXPECT_FALSE(quarantine::ReadForm(text)) << text;
}

// What a stranger writes into one message bears on no other one's room.
TEST_F(Kept, AHugeSubjectIsCut) {
    const std::string id = Keep("Subject: " + std::string(200'000, 'x') + "\r\n\r\nx\r\n");
    const auto found = store_.Find(id, complaint_);
    ASSERT_TRUE(found);
    EXPECT_LE(found->subject.size(), 1000U);
    EXPECT_LE(fs::file_size(folder_ + "/" + id + ".meta"), 8000U);
}

TEST_F(Kept, NothingIsKeptHalf) {
    fs::remove_all(folder_);
    std::ofstream(folder_) << "no directory";
    EXPECT_EQ(Keep("x"), "");
    EXPECT_NE(complaint_.find("can't"), std::string::npos);
    fs::remove_all(folder_);
    fs::create_directories(folder_ + "/index.db");
    EXPECT_EQ(Keep("x"), "");
    EXPECT_EQ(Files(), std::vector<std::string>());
}

TEST_F(Kept, StatesOutliveTheIndex) {
    const std::string text = "x";
    const std::string held = Keep(text);
    const std::string out = Keep(text);
    const std::string refused = Keep(text);
    const std::string cut = Keep(text);
    EXPECT_TRUE(Release(out, false, true));
    EXPECT_TRUE(Release(refused, false, false));
    EXPECT_TRUE(store_.Claim(cut, false, complaint_));
    for (const char* each : {"", "-wal", "-shm"}) fs::remove(folder_ + "/index.db" + each);
    EXPECT_EQ(store_.TidyUp({0, 1 << 20}, 0, complaint_), 0);
    EXPECT_EQ(StateOf(held), "held");
    EXPECT_EQ(StateOf(out), "released");
    EXPECT_EQ(StateOf(refused), "held");
    EXPECT_EQ(StateOf(cut), "releasing");
    EXPECT_TRUE(Release(cut, true, false)) << complaint_;
    EXPECT_EQ(StateOf(cut), "held");
}

TEST_F(Kept, OneReleaseAtATime) {
    const std::string id = Keep("x");
    {
        const platform::File claim = store_.Claim(id, false, complaint_);
        EXPECT_TRUE(claim);
        EXPECT_EQ(StateOf(id), "releasing");
        Quarantine other;
        EXPECT_FALSE(other.Claim(id, true, complaint_)) << "not even with --again";
        EXPECT_FALSE(other.Delete(id, complaint_)) << "the server may refuse it";
        EXPECT_EQ(other.Expire(0, complaint_), 0);
    }
    EXPECT_FALSE(store_.Claim(id, false, complaint_)) << "it was cut off";
    EXPECT_TRUE(Release(id, true, false));
    EXPECT_EQ(StateOf(id), "held") << "refused";
    EXPECT_TRUE(Release(id, false, true));
    EXPECT_EQ(StateOf(id), "released");
    EXPECT_FALSE(store_.Claim(id, false, complaint_));
    EXPECT_TRUE(Release(id, true, false));
    EXPECT_EQ(StateOf(id), "released") << "it was before";
    EXPECT_FALSE(store_.Claim("../../etc/passwd", true, complaint_));
    const std::string other = Keep("y");
    int error = 0;
    const sqlite::Connection writer = sqlite::Open(folder_ + "/index.db", 0, error);
    ASSERT_TRUE(sqlite::Execute(writer.get(), "BEGIN IMMEDIATE"));
    auto deleted = std::async(std::launch::async, [&other] {
        std::string complaint;
        return Quarantine().Delete(other, complaint);
    });
    EXPECT_FALSE(store_.Claim(other, false, complaint_));
    EXPECT_EQ(complaint_, "database is locked") << "nothing about states";
    EXPECT_FALSE(deleted.get());
    EXPECT_TRUE(fs::exists(folder_ + "/" + other + ".meta")) << "all of it is still there";
    sqlite::Execute(writer.get(), "ROLLBACK");
    EXPECT_TRUE(store_.Claim(other, false, complaint_)) << complaint_;
}

TEST_F(Kept, Found) {
    const std::string first = Keep("Subject: 100% off\r\n\r\nx\r\n");
    const std::string second = Keep("Subject: Other\r\n\r\nx\r\n");
    const struct {
        const char* name;
        quarantine::Filter filter;
        std::vector<std::string> ids;
    } cases[] = {
        {"all", {}, {second, first}},
        {"a part of the subject, in any case", {.subject = "OTH"}, {second}},
        {"no pattern", {.subject = "0% o"}, {first}},
        {"no pattern at all", {.subject = "_"}, {}},
        {"sender", {.from = "S@EXAMPLE"}, {second, first}},
        {"a recipient", {.to = "b@"}, {second, first}},
        {"id", {.id = first}, {first}},
        {"any of them", {.any = "oTHer"}, {second}},
        {"any, a recipient", {.any = "a@example"}, {second, first}},
        {"section", {.section = "antispam"}, {}},
        {"the newest", {.limit = 1}, {second}},
        {"before", {.until = 1}, {}},
    };
    for (const auto& each : cases) EXPECT_EQ(Ids(each.filter), each.ids) << each.name;
}

}  // namespace
}  // namespace quarantine
