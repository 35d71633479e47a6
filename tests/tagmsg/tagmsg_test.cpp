#include "tagmsg/tagmsg.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "tagmsg/flat.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"

namespace {

std::string Flat(TagMsgNode* root) {
    void* data = nullptr;
    std::uint32_t length = 0;
    EXPECT_EQ(TagMsgSerialize(root, &data, &length), TAGMSG_OK);
    EXPECT_EQ(length, TagMsgSize(root) + 4);
    std::string flat(static_cast<char*>(data), length);
    std::free(data);
    return flat;
}
int Parse(TagMsgNode** root, const std::string& flat) {
    return TagMsgParse(root, flat.data(), static_cast<std::int32_t>(flat.size()));
}

std::string Words(std::initializer_list<std::uint32_t> words) {
    std::string flat(words.size() * 4, '\0');
    auto* at = reinterpret_cast<std::uint8_t*>(flat.data());
    for (const std::uint32_t word : words) at = WriteWord(at, word);
    return flat;
}
std::string WithLength(const std::string& body) {
    return Words({static_cast<std::uint32_t>(body.size() + 4)}) + body;
}

TagMsgNode* Node() {
    TagMsgNode* node = nullptr;
    EXPECT_EQ(TagMsgCreate(&node), TAGMSG_OK);
    return node;
}
void AddNumber(TagMsgNode* node, std::uint32_t tag, std::int32_t number) {
    EXPECT_EQ(TagMsgAddAttr(node, tag, &number), TAGMSG_OK);
}

TEST(TagMsg, WorkedExampleToTheByte) {
    TagMsgNode* root = Node();
    TagMsgAddAttr(root, TagPath, "a.eml");
    AddNumber(root, TagActionMask, 16);
    TagMsgNode* first = Node();
    TagMsgAddAttr(first, TagSection, "Antispam");
    AddNumber(first, TagResultCode, 2);
    TagMsgNode* second = Node();
    ASSERT_EQ(TagMsgAddChild(root, first), TAGMSG_OK);
    ASSERT_EQ(TagMsgAddChild(root, second), TAGMSG_OK);
    AddNumber(second, TagEntryCode, 1);
    const std::string expected = Words({95, 2, 2, 0, 0x1401, 16, 0x0200, 6}) +
                                 std::string("a.eml\0", 6) +
                                 Words({0, 2, 1, 0x0801, 2, 0x3800, 9}) +
                                 std::string("Antispam\0", 9) + Words({0, 1, 0, 0x0101, 1});
    EXPECT_EQ(Flat(root), expected);
    TagMsgFree(root, 1, 1);

    TagMsgNode* parsed = nullptr;
    ASSERT_EQ(Parse(&parsed, expected), TAGMSG_OK);
    EXPECT_EQ(TagMsgChildCount(parsed), 2);
    TagMsgNode* child = nullptr;
    ASSERT_EQ(TagMsgGetChild(parsed, &child, 0), TAGMSG_OK);
    char text[16] = "";
    EXPECT_EQ(TagMsgCopyAttr(child, TagSection, text, 15), TAGMSG_OK);
    EXPECT_STREQ(text, "Antispam");
    EXPECT_EQ(TagMsgCopyAttr(child, TagPath, text, 15), TAGMSG_NOT_FOUND);
    EXPECT_EQ(TagMsgGetChild(parsed, &child, 2), TAGMSG_BAD);
    EXPECT_EQ(TagMsgGetChild(parsed, &child, -1), TAGMSG_NOT_FOUND);
    EXPECT_EQ(Flat(parsed).size(), expected.size());
    TagMsgFree(parsed, 1, 1);
}

TEST(TagMsg, FlattenIsTheShortWayToTheSameBytes) {
    const std::int32_t number = -7;
    const TagMsgField fields[] = {
        {TagPath, "/spool/1"}, {TagSender, nullptr}, {TagAgentId, &number}, {TagLabel, ""}};
    OwnedFlatForm quick;
    ASSERT_EQ(TagMsgFlatten(fields, quick), TAGMSG_OK);
    OwnedMessage message;
    TagMsgCreate(&message.root);
    for (const TagMsgField& each : fields) TagMsgAddAttr(message.root, each.tag, each.value);
    OwnedFlatForm slow;
    ASSERT_EQ(TagMsgSerialize(message.root, &slow.data, &slow.length), TAGMSG_OK);
    EXPECT_EQ(std::string(static_cast<const char*>(quick.data), quick.length),
              std::string(static_cast<const char*>(slow.data), slow.length));
    const TagMsgField bad[] = {{0x0102, "no such type"}};
    EXPECT_EQ(TagMsgFlatten(bad, quick), TAGMSG_BAD);
}

TEST(TagMsg, EmptyValuesAndTypes) {
    TagMsgNode* root = Node();
    EXPECT_EQ(Flat(root), Words({16, 0, 0, 0}));
    EXPECT_EQ(TagMsgAddAttr(root, TagSender, nullptr), TAGMSG_OK);
    EXPECT_EQ(TagMsgSize(root), 12U);
    EXPECT_EQ(TagMsgAddAttr(root, 0x0202, "x"), TAGMSG_BAD);
    TagMsgAddAttr(root, TagSender, "one");
    TagMsgAddAttr(root, TagSender, "two");
    char exact[4] = "zzz";
    EXPECT_EQ(TagMsgCopyAttr(root, TagSender, exact, 3), TAGMSG_OK);
    EXPECT_EQ(std::string(exact, 4), std::string("two\0", 4));
    TagMsgNode* parsed = nullptr;
    ASSERT_EQ(Parse(&parsed, Flat(root)), TAGMSG_OK);
    void* copy = nullptr;
    ASSERT_EQ(TagMsgDupAttr(parsed, TagSender, &copy), TAGMSG_OK);
    EXPECT_STREQ(static_cast<char*>(copy), "one")
        << "a receiver finds the one that was added first";
    std::free(copy);
    TagMsgFree(parsed, 1, 1);
    TagMsgFree(root, 1, 1);
}

TEST(TagMsg, ParsingNeverBelievesTheBytes) {
    const struct {
        const char* name;
        std::string flat;
        int status;
        const char* sender;  // the value of TagSender after a success, or null
    } cases[] = {
        {"OneTooLong", Words({17, 0, 0, 0}), TAGMSG_BAD, nullptr},
        {"Empty", "", TAGMSG_BAD, nullptr},
        {"CutNodeHeader", Words({12, 0, 0}), TAGMSG_BAD, nullptr},
        {"MissingAttribute", WithLength(Words({0, 1, 0})), TAGMSG_BAD, nullptr},
        {"HugeAttributeCount", WithLength(Words({0, 0x7FFFFFFF, 0, 0x0101, 1})), TAGMSG_BAD,
         nullptr},
        {"ChildrenMissing", WithLength(Words({1, 0, 0})), TAGMSG_BAD, nullptr},
        {"NegativeTextLength", WithLength(Words({0, 1, 0, TagSender, 0xFFFFFFFF})), TAGMSG_OK,
         "(load-error)"},
        {"TextWithoutZero", WithLength(Words({0, 1, 0, TagSender, 4}) + "abcd"), TAGMSG_OK,
         "(load-error)"},
        {"UnknownTypeTakesFour",
         WithLength(Words({0, 2, 0, 0x0202, TagSender, 2}) + std::string("a\0", 2)), TAGMSG_OK,
         "a"},
        {"TrailingBytes", WithLength(Words({0, 0, 0, 1, 2, 3})), TAGMSG_OK, nullptr},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        TagMsgNode* root = nullptr;
        ASSERT_EQ(Parse(&root, each.flat), each.status);
        ASSERT_EQ(root != nullptr, each.status == TAGMSG_OK);
        if (root == nullptr) continue;
        const void* text = nullptr;
        const int found = TagMsgPeekAttr(root, TagSender, &text);
        if (each.sender != nullptr) {
            ASSERT_EQ(found, TAGMSG_OK);
            EXPECT_STREQ(static_cast<const char*>(text), each.sender);
        }
        Flat(root);
        TagMsgFree(root, 1, 1);
    }
}

TEST(TagMsg, SiblingFlagsDecideHowManyChildren) {
    TagMsgNode* root = nullptr;
    ASSERT_EQ(Parse(&root, WithLength(Words({5, 0, 0, 0, 0, 1, 0, 0, 0}))), TAGMSG_OK);
    EXPECT_EQ(root->childCount, 2);
    EXPECT_EQ(TagMsgChildCount(root), 2);
    TagMsgFree(root, 1, 1);
}

TEST(TagMsg, DepthCostsNoStack) {
    std::string body;
    for (int i = 0; i < 200000; ++i) body += Words({1, 0, 0});
    body += Words({0, 0, 0});
    TagMsgNode* root = nullptr;
    ASSERT_EQ(Parse(&root, WithLength(body)), TAGMSG_OK);
    EXPECT_EQ(Flat(root), WithLength(body));
    TagMsgFree(root, 1, 1);
}

}  // namespace
