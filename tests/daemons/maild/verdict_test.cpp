// Several findings and what they come to, and what the session is told.
#include <gtest/gtest.h>

#include "daemons/maild/reply.h"
#include "daemons/maild/verdict/antivirus.h"
#include "libstats/codes.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"

namespace {

using maild::Action;
using maild::Finding;
using maild::Section;

Finding Of(Section section, Action action, const char* target = "") {
    return {.section = section, .action = action, .target = target};
}

Finding Said(Action action, const char* text, const char* reason) {
    return {.section = Section::kAttachments, .action = action, .reason = reason, .text = text};
}

TEST(Verdict, TheStrongestFindingDecides) {
    constexpr Section kVirus = Section::kAntivirus;
    constexpr Section kContent = Section::kContent;
    const struct {
        const char* name;
        Finding weaker;
        Finding stronger;
    } cases[] = {
        {"a tag is more than nothing", Of(kContent, Action::kPass), Of(kContent, Action::kTag)},
        {"removing is more than a tag", Of(kContent, Action::kTag), Of(kContent, Action::kRemove)},
        {"what nobody looked at is not delivered", Of(kContent, Action::kRemove),
         Of(kVirus, Action::kPutOff)},
        {"nor to somebody else", Of(kContent, Action::kRedirect), Of(kVirus, Action::kPutOff)},
        {"nor kept to be let out", Of(kContent, Action::kQuarantine), Of(kVirus, Action::kPutOff)},
        {"malware's redirection stands where another section can't look",
         Of(Section::kAntispam, Action::kPutOff), Of(kVirus, Action::kRedirect)},
        {"a drop is certain", Of(kVirus, Action::kPutOff), Of(kContent, Action::kDrop)},
        {"a drop is more than a redirection", Of(kVirus, Action::kRedirect),
         Of(kContent, Action::kDrop)},
        {"the sender should know", Of(kVirus, Action::kDrop), Of(kContent, Action::kReject)},
    };
    for (const auto& each : cases) {
        for (const bool first : {true, false}) {
            const Finding both[] = {first ? each.weaker : each.stronger,
                                    first ? each.stronger : each.weaker};
            EXPECT_EQ(maild::Decide(both).action, each.stronger.action) << each.name;
        }
    }
    EXPECT_EQ(maild::Decide({}).action, Action::kPass);
    const Finding equal[] = {Of(kContent, Action::kDrop), Of(kVirus, Action::kDrop)};
    EXPECT_EQ(maild::Decide(equal).by, &equal[0]);
}

TEST(Verdict, Words) {
    for (const Action action : {Action::kPass, Action::kTag, Action::kRemove, Action::kQuarantine,
                                Action::kRedirect, Action::kDrop, Action::kReject, Action::kPutOff})
        EXPECT_EQ(maild::ActionOf(maild::Word(action)), action);
    EXPECT_EQ(maild::ActionOf("Refuse"), Action::kReject);
    EXPECT_FALSE(maild::ActionOf("putoff"));
}

TEST(Verdict, OfTheAntivirusSection) {
    maild::WalkResult forged;
    forged.ambiguities = {{maild::Ambiguous::kTwoContentTypes, "1"}};
    maild::WalkResult sloppy;
    sloppy.ambiguities = {{maild::Ambiguous::kUnclosedMultipart, "1"}};
    const ScanResult clean{ScanOutcome::kClean, ""};
    const ScanResult down{ScanOutcome::kDown, "down"};
    const ScanResult infected{ScanOutcome::kInfected, "x"};
    Settings refuses;
    refuses.whenAmbiguous = refuses.tooComplex = WhenOdd::kRefuse;
    refuses.whenEncrypted = WhenEncrypted::kRefuse;
    Settings passes;
    passes.passWhenDown = true;
    passes.tooComplex = WhenOdd::kPass;
    Settings redirects;
    redirects.virusAction = "redirect";
    redirects.redirectAddress = "a@b";
    const auto acts = [](const char* action, const char* address = "") {
        Settings settings;
        settings.virusAction = "drop";
        settings.antivirusAction = action;
        settings.redirectAddress = address;
        return settings;
    };
    const Judgement malware{{}, "", infected, ""};
    const struct {
        const char* name;
        Settings settings;
        Judgement judgement;
        Action action;
        std::int32_t event;
    } cases[] = {
        {"infected", {}, {{}, "", infected, ""}, Action::kReject, kStatInfectedRefused},
        {"infected, redirected",
         redirects,
         {{}, "", infected, ""},
         Action::kRedirect,
         kStatInfectedRedirected},
        {"infected, no word", acts(""), malware, Action::kDrop, kStatInfectedDropped},
        {"infected, held", acts("Quarantine"), malware, Action::kQuarantine, kStatInfectedRefused},
        {"infected, tagged", acts("tag"), malware, Action::kTag, kStatInfectedPassed},
        {"infected, put off", acts("put off"), malware, Action::kPutOff, kStatNotScanned},
        {"infected, redirected by it", acts("redirect", "a@b"), malware, Action::kRedirect,
         kStatInfectedRedirected},
        {"infected, nowhere to go", acts("redirect"), malware, Action::kReject,
         kStatInfectedRefused},
        {"infected, a slip of the pen", acts("dorp"), malware, Action::kReject,
         kStatInfectedRefused},
        {"infected, whatever else",
         refuses,
         {forged, "deep", infected, "Zip"},
         Action::kReject,
         kStatInfectedRefused},
        {"down", {}, {{}, "", down, ""}, Action::kPutOff, kStatNotScanned},
        {"down, may pass", passes, {{}, "", down, ""}, Action::kPass, kStatPassedUnscanned},
        {"down and encrypted",
         refuses,
         {{}, "", down, "Zip"},
         Action::kReject,
         kStatEncryptedRefused},
        {"encrypted", {}, {{}, "", clean, "Zip"}, Action::kPass, kStatEncryptedPassed},
        {"too complex", {}, {{}, "deep", clean, ""}, Action::kPutOff, kStatNotScanned},
        {"too complex, down may pass",
         passes,
         {{}, "deep", down, ""},
         Action::kPass,
         kStatPassedUnscanned},
        {"too complex, refused",
         refuses,
         {{}, "deep", clean, ""},
         Action::kReject,
         kStatStructureRefused},
        {"ambiguous", {}, {forged, "", clean, ""}, Action::kPass, kStatClean},
        {"ambiguous, refused",
         refuses,
         {forged, "", clean, ""},
         Action::kReject,
         kStatStructureRefused},
        {"sloppy", refuses, {sloppy, "", clean, ""}, Action::kPass, kStatClean},
        {"ambiguous and down",
         refuses,
         {forged, "", down, ""},
         Action::kReject,
         kStatStructureRefused},
    };
    for (const auto& each : cases) {
        const std::vector<Finding> findings =
            maild::AntivirusFindings(each.settings, each.judgement);
        const maild::Decision decision = maild::Decide(findings);
        EXPECT_EQ(decision.action, each.action) << each.name;
        ASSERT_NE(decision.by, nullptr) << each.name;
        EXPECT_EQ(decision.by->event, each.event) << each.name;
    }
}

// "MASK NAME:MASK[:RECIPIENTS]... entry:MESSAGE" of an answer.
std::string AnswerTo(const std::vector<Finding>& findings) {
    OwnedMessage answer;
    EXPECT_EQ(TagMsgCreate(&answer.root), TAGMSG_OK);
    if (!BuildAnswer(answer.root, findings, maild::Decide(findings))) return "none";
    const auto mask = [](TagMsgNode* node) {
        std::int32_t number = -1;
        TagMsgCopyAttr(node, TagActionMask, &number, sizeof number);
        return std::to_string(number);
    };
    std::string text = mask(answer.root);
    for (std::int32_t i = 0; i < TagMsgChildCount(answer.root); ++i) {
        TagMsgNode* section = nullptr;
        TagMsgGetChild(answer.root, &section, i);
        const void* found = nullptr;
        if (TagMsgPeekAttr(section, TagSection, &found) != TAGMSG_OK) {
            // One of these missing would fail the scan.
            for (const std::uint32_t tag : {TagEntryCode, TagFilterValue, TagObjectName})
                EXPECT_EQ(TagMsgPeekAttr(section, tag, &found), TAGMSG_OK) << tag;
            EXPECT_EQ(TagMsgPeekAttr(section, TagMessage, &found), TAGMSG_OK);
            text += " entry:" + std::string(static_cast<const char*>(found));
            continue;
        }
        text += " " + std::string(static_cast<const char*>(found)) + ":" + mask(section);
        if (TagMsgPeekAttr(section, TagRecipients, &found) == TAGMSG_OK)
            text += ":" + std::string(static_cast<const char*>(found));
    }
    return text;
}

TEST(Verdict, Answers) {
    const struct {
        const char* name;
        std::vector<Finding> findings;
        const char* answer;
    } cases[] = {
        {"nothing", {}, "1"},
        {"what passes is not told", {Of(Section::kAntivirus, Action::kPass)}, "1"},
        {"tag", {Of(Section::kAntispam, Action::kTag)}, "17 Antispam:1"},
        {"reject", {Of(Section::kContent, Action::kReject)}, "20 ContentFilter:4"},
        {"redirected virus", {Of(Section::kAntivirus, Action::kRedirect, "a")}, "18 Antivirus:3:a"},
        {"redirected attachment",
         {Of(Section::kAttachments, Action::kRedirect, "a;b")},
         "18 AttachFilter:2:a;b"},
        {"redirected by two to one address",
         {Of(Section::kAttachments, Action::kRedirect, "a;b"),
          Of(Section::kContent, Action::kRedirect, "a;b")},
         "18 AttachFilter:2:a;b ContentFilter:2"},
        {"a redirection that didn't win",
         {Of(Section::kAntivirus, Action::kRedirect, "a"), Of(Section::kContent, Action::kReject)},
         "20 Antivirus:2 ContentFilter:4"},
        {"a drop beside a redirection",
         {Of(Section::kContent, Action::kDrop), Of(Section::kAttachments, Action::kRedirect, "a")},
         "18 AttachFilter:2 ContentFilter:2"},
        {"put off", {Of(Section::kAntivirus, Action::kPutOff)}, "none"},
        {"quarantine is a drop to the proxy",
         {Of(Section::kAntivirus, Action::kQuarantine)},
         "18 Antivirus:2"},
        {"a part that was taken out",
         {Of(Section::kAttachments, Action::kRemove)},
         "17 AttachFilter:1"},
        {"the rule's own words",
         {Said(Action::kReject, "not here", "x.exe")},
         "20 AttachFilter:4 entry:not here"},
        {"what was found", {Said(Action::kDrop, "", "x.exe")}, "18 AttachFilter:2 entry:x.exe"},
        {"of the one that decides",
         {Said(Action::kDrop, "", "x.exe"), Of(Section::kContent, Action::kReject)},
         "20 AttachFilter:2 ContentFilter:4"},
    };
    for (const auto& each : cases) EXPECT_EQ(AnswerTo(each.findings), each.answer) << each.name;
}

}  // namespace
