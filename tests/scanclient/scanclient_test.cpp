#include "scanclient/scanclient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "logclient/logclient.h"
#include "support/busy_pipe.h"
#include "support/instance.h"
#include "support/pipe_daemon.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"
#include "trelis/trelis.h"

namespace {

using namespace std::chrono_literals;
using Build = std::function<void(TagMsgNode* reply)>;

// Answers as the daemon would; the last request stays for a look.
class FakeDaemon {
  public:
    FakeDaemon(const char* name, Build build, std::chrono::milliseconds delay = 0ms)
        : daemon_(name, [this, build = std::move(build), delay](const std::string& flat) {
              TagMsgParse(&request.root, flat.data(), static_cast<std::int32_t>(flat.size()));
              std::this_thread::sleep_for(delay);
              std::string answer;
              if (build) {
                  OwnedMessage reply;
                  OwnedFlatForm form;
                  TagMsgCreate(&reply.root);
                  build(reply.root);
                  TagMsgSerialize(reply.root, &form.data, &form.length);
                  answer.assign(static_cast<const char*>(form.data), form.length);
              }
              return answer;
          }) {}
    // Of the request, once the daemon has ended.
    std::string Text(std::uint32_t tag) {
        daemon_.End();
        const void* text = nullptr;
        return TagMsgPeekAttr(request.root, tag, &text) == TAGMSG_OK
                   ? static_cast<const char*>(text)
                   : "(none)";
    }
    OwnedMessage request;

  private:
    PipeDaemon daemon_;
};

void Number(TagMsgNode* node, std::uint32_t tag, std::int32_t value) {
    TagMsgAddAttr(node, tag, &value);
}
TagMsgNode* Child(TagMsgNode* parent) {
    TagMsgNode* child = nullptr;
    TagMsgCreate(&child);
    TagMsgAddChild(parent, child);
    return child;
}

class Scan : public testing::Test {
  protected:
    Scan() { EXPECT_EQ(MailScanInit(), 0); }
    ~Scan() override {
        MailScanFree(&record_);
        MailScanUninit();
    }
    MailScanRecord record_{};
};

TEST_F(Scan, ActionLists) {
    const struct {
        std::uint32_t mask;
        const char* objects;
        const char* messages;
    } cases[] = {{11, "disinfect;delete;drop", "drop"},
                 {4, "ignore", "ignore"},
                 {0x2F, "disinfect;delete;quarantine;ignore", "quarantine;ignore"},
                 {0x10, "reject", "reject"},
                 {3, "disinfect;delete", "ignore"}};
    for (const auto& each : cases) {
        MailScanSetObjectActions(&record_, each.mask, nullptr);
        MailScanSetMessageActions(&record_, each.mask, nullptr);
        EXPECT_STREQ(record_.objectActions, each.objects);
        EXPECT_STREQ(record_.messageActions, each.messages);
    }
    MailScanSetObjectActions(&record_, 0, "fallback");
    EXPECT_STREQ(record_.objectActions, "fallback");
    EXPECT_EQ(MailScanSetObjectActions(nullptr, 1, nullptr), -5);
}

TEST_F(Scan, RequestAndVerdict) {
    FakeDaemon daemon("vtmaild", [](TagMsgNode* reply) {
        Number(reply, TagActionMask, 0x12);
        TagMsgNode* virus = Child(reply);
        TagMsgAddAttr(virus, TagSection, "Antivirus");
        Number(virus, TagActionMask, 3);
        TagMsgAddAttr(virus, TagRecipients, std::string(3000, 'r').c_str());
        TagMsgAddAttr(Child(virus), TagObjectName, "first");
        TagMsgAddAttr(Child(virus), TagObjectName, "second");
        TagMsgAddAttr(Child(reply), TagSection, "antispam");
        TagMsgNode* spam = Child(reply);
        TagMsgAddAttr(spam, TagSection, "Antispam");
        Number(spam, TagFilterValue, 9);
    });
    record_.path = "/spool/x1";
    record_.sender = "s@example.org";
    record_.peerAddress = "192.0.2.1";
    record_.agentId = 4;
    record_.timeoutSeconds = 3;
    record_.transferForm = 2;
    record_.cancelCallback = [](void*) { return 0; };
    for (const char* recipient : {"a", "b", "c"}) MailScanAddRecipient(&record_, recipient);
    ASSERT_EQ(MailScan(&record_), 0);
    EXPECT_EQ(daemon.Text(TagRecipients), "a;b;c");
    EXPECT_EQ(daemon.Text(TagPath), "/spool/x1");
    EXPECT_EQ(daemon.Text(TagNumberText), "");
    EXPECT_EQ(daemon.Text(TagExtraText), "(none)");
    std::int32_t slice = 0;
    TagMsgCopyAttr(daemon.request.root, TagPollInterval, &slice, sizeof slice);
    EXPECT_EQ(slice, 3000);
    std::int32_t form = 0;
    TagMsgCopyAttr(daemon.request.root, TagTransferForm, &form, sizeof form);
    EXPECT_EQ(form, 2);
    EXPECT_EQ(daemon.request.root->attrs->tag, TagPath)
        << "parsed oldest first: the flat form began with the newest";
    EXPECT_EQ(record_.actionMask, 2) << "without entries the bit goes";
    ASSERT_NE(record_.verdict, nullptr);
    EXPECT_EQ(record_.verdict->antivirus.actionMask, 3);
    EXPECT_EQ(std::string(record_.verdict->antivirus.recipients).size(), 3000U);
    ASSERT_NE(record_.verdict->antivirus.objects, nullptr);
    EXPECT_STREQ(record_.verdict->antivirus.objects[1]->objectName, "second");
    EXPECT_EQ(record_.verdict->antivirus.objects[2], nullptr);
    EXPECT_EQ(record_.verdict->antispam.filterValue, 9);
}

TEST_F(Scan, EntriesAreCutAndKeepTheirBit) {
    FakeDaemon daemon("vtmaild", [](TagMsgNode* reply) {
        Number(reply, TagActionMask, 0x11);
        TagMsgNode* entry = Child(reply);
        Number(entry, TagEntryCode, 5);
        Number(entry, TagFilterValue, 6);
        TagMsgAddAttr(entry, TagObjectName, "name");
        TagMsgAddAttr(entry, TagMessage, std::string(3000, 'm').c_str());
    });
    ASSERT_EQ(MailScan(&record_), 0);
    EXPECT_EQ(record_.actionMask, 0x11);
    EXPECT_EQ(record_.verdict, nullptr);
    ASSERT_NE(record_.entries, nullptr);
    EXPECT_EQ(std::string(record_.entries->message).size(), 2047U);
}

TEST_F(Scan, RepliesHaveTheirStatus) {
    const struct {
        const char* name;
        Build build;
        int status;
    } cases[] = {
        {"no data", nullptr, -5},
        {"no mask", [](TagMsgNode*) {}, -11},
        {"bit without children", [](TagMsgNode* reply) { Number(reply, TagActionMask, 0x11); }, 0},
        {"children without bit",
         [](TagMsgNode* reply) {
             Number(reply, TagActionMask, 1);
             TagMsgAddAttr(Child(reply), TagSection, "Antivirus");
         },
         0},
        {"entry with a tag missing",
         [](TagMsgNode* reply) {
             Number(reply, TagActionMask, 0x11);
             Number(Child(reply), TagEntryCode, 1);
         },
         -11},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        FakeDaemon daemon("vtmaild", each.build);
        EXPECT_EQ(MailScan(&record_), each.status);
        EXPECT_EQ(record_.entries, nullptr);
        EXPECT_EQ(record_.verdict, nullptr);
        // The next daemon has pipes of its own.
        MailScanUninit();
        ASSERT_EQ(MailScanInit(), 0);
    }
}

TEST_F(Scan, AsksTheCallbackAfterEachSliceAndGivesUpWhenTold) {
    static int calls;
    calls = 0;
    record_.timeoutSeconds = 1;
    record_.cancelCallback = [](void*) { return ++calls >= 2 ? 1 : 0; };
    FakeDaemon daemon("vtmaild", nullptr, 2500ms);
    EXPECT_EQ(MailScan(&record_), -1);
    EXPECT_EQ(calls, 2);
}

TEST_F(Scan, WithoutADaemonFailsAtOnce) { EXPECT_EQ(MailScan(&record_), -1); }

TEST_F(Scan, ABusyDaemonLeavesTheSessionAlive) {
    const BusyPipe busy("vtmaild");
    int asked = 0;
    record_.path = "/spool/x";
    record_.timeoutSeconds = 1;
    record_.cancelContext = &asked;
    record_.cancelCallback = [](void* context) {
        return ++*static_cast<int*>(context) == 2 ? 1 : 0;
    };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(MailScan(&record_), -1);
    EXPECT_EQ(asked, 2);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

class Log : public testing::Test {
  protected:
    Log() {
        EXPECT_EQ(TrelisInit2(), 0);
        EXPECT_EQ(LogClientInit("a label that is longer than thirty-one characters", kLocalStore),
                  0);
    }
    ~Log() override {
        LogClientUninit();
        TrelisUninit();
    }
};

TEST_F(Log, VirusAlertMarksAreCutAndCounted) {
    char from[] = "joe(alert) and more";
    char to[] = "ann";
    FakeDaemon daemon("vtlogd", nullptr);
    EXPECT_EQ(LogClientEvent(kEventVirus, "details", from, to, "path", "c", nullptr, "a", "status",
                             nullptr, nullptr, 17),
              0);
    EXPECT_STREQ(from, "joe");
    EXPECT_EQ(daemon.Text(TagFrom), "joe");
    EXPECT_EQ(daemon.Text(TagAlertLabel), "Mail10");
    EXPECT_EQ(daemon.Text(TagNumberText), "17");
}

}  // namespace
