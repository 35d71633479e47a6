// What two readers of a zip find, and messages in archives: each of them is looked at.
#include "filtering.h"

namespace {

using namespace std::string_literals;
using maild::AttachmentRules;

TEST(Archives, BothNamesOfAFileInAZip) {
    const AttachmentRules rules{{NameRule("exe", "*.exe")}, {}};
    for (const std::size_t before : {10U, 65500U, 65530U, 200000U}) {
        std::string zip = Zip({{"a.txt", Random(before)}, {"b.txt", "x"}});
        zip.replace(zip.find("b.txt"), 5, "b.exe");
        EXPECT_EQ(Filter(Mail({{"f.zip", zip}}), rules).findings, "exe: b.exe in f.zip; ")
            << before;
    }
}

std::string Replaced(std::string text, const std::string& old, const std::string& made) {
    const std::size_t at = text.rfind(old);
    EXPECT_NE(at, std::string::npos);
    return text.replace(at, old.size(), made);
}

std::string Stored(const std::vector<Packed>& files) {
    return Pack("zip", "none", files, nullptr, "zip:compression=store");
}

// What one reader takes for the archive and another one doesn't.
TEST(Archives, ReadFromEitherEnd) {
    const AttachmentRules rules{{NameRule("exe", "*.exe"), TypeRule("type", "*dosexec")}, {}};
    const std::string inner = Zip({{"a.exe", "x"}});
    const std::string good = Zip({{"a.txt", "x"}});
    const std::string listed = Replaced(good, "a.txt", "a.exe");
    const std::string commented =
        listed.substr(0, listed.size() - 2) + "\x30\x75" + std::string(30000, 'c');
    std::string flagged = Zip({{"a.dat", kProgram}});
    flagged[6] = static_cast<char>(flagged[6] | 1);
    // Readers that begin at the front stop at what is none of a zip, others never see it.
    std::string versions = good.substr(0, good.find("PK\1\2")) + "PK\1\2" + std::string(50, '\1');
    versions += Zip({{std::string(3000, '.') + "/a.exe", "x"}});
    versions[versions.find("PK\3\4", 1) + 5] = 1;
    std::string miscounted = good;
    miscounted[miscounted.rfind("PK\5\6") + 10] = 2;
    const struct {
        const char* name;
        std::string data;
        const char* findings;
        const char* tooComplex;
    } cases[] = {
        {"by the directory's name", listed, "exe: a.exe in f.zip; ", ""},
        {"with a long comment behind it", commented, "exe: a.exe in f.zip; ", ""},
        {"behind something, too", Random(100) + commented, "exe: a.exe in f.zip; ",
         "an archive can't be read: f.zip"},
        {"behind a picture", "GIF89a" + std::string(100, 'x') + commented, "exe: a.exe in f.zip; ",
         "an archive can't be read: f.zip"},
        {"behind another archive", Pack("ustar", "none", {{"a.txt", "x"}}) + Zip({{"b", kProgram}}),
         "type: b in f.zip; ", ""},
        {"behind something packed", Pack("raw", "gzip", {{"a", "x"}}) + Zip({{"b.exe", "x"}}),
         "exe: b.exe in f.zip; ", ""},
        {"headers of another version", versions, "exe: a.exe in f.zip; ", ""},
        {"a directory that tells of more files than it lists", miscounted, "",
         "a zip that says two things of a file: f.zip"},
        {"packed as a whole", Pack("raw", "gzip", {{"f", listed}}), "exe: a.exe in f in f.zip; ",
         ""},
        {"another zip in front", Zip({{"b", kProgram}}) + good, "type: b in f.zip; ", ""},
        {"and one in it", Pack("zip", "none", {{"b", inner}}) + good, "exe: a.exe in b in f.zip; ",
         ""},
        {"of the same names", Zip({{"a.txt", kProgram}}) + good, "type: a.txt in f.zip; ", ""},
        {"between others", good + Zip({{"a.txt", kProgram}}) + good, "type: a.txt in f.zip; ", ""},
        {"encrypted by one of two", flagged, "", "a zip that says two things of a file: f.zip"},
        {"RAR behind a picture", "GIF89a" + Random(100) + "Rar!\x1A\7"s + Random(100), "",
         "an archive can't be read: f.zip"},
        {"a zip is as any other file", Zip({{"b.zip", good}, {"c.zip", good}}), "", ""},
        {"also as it stands", Stored({{"a", "x"}, {"b.zip", Zip({{"c", "x"}, {"d", "x"}})}}), "",
         ""},
        {"two of them, among others", Stored({{"b.zip", good}, {"a", "x"}, {"c.zip", good}}), "",
         ""},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        const Result result = Filter(Mail({{"f.zip", each.data}}), rules);
        EXPECT_EQ(result.findings, each.findings);
        EXPECT_EQ(result.tooComplex, each.tooComplex);
    }
}

// Mail programs open them as they open what is forwarded.
TEST(Archives, MessagesInThem) {
    const AttachmentRules rules{{NameRule("exe", "*.exe")}, {}};
    const std::string mail = Mail({{"a.exe", "x"}});
    const std::string deep = Mail({{"b.zip", Zip({{"c.eml", mail}})}});
    std::string deeper = mail;
    for (int i = 0; i < 5; ++i) deeper = Mail({{"d.zip", Zip({{"d.eml", deeper}})}});
    const struct {
        const char* name;
        std::string file;
        const char* findings;
        const char* tooComplex;
    } cases[] = {
        {"message", mail, "exe: a.exe in m.eml in f.zip; ", ""},
        {"message without one", Mail({{"a.txt", "x"}}), "", ""},
        {"message in an archive in it", deep, "exe: a.exe in c.eml in b.zip in m.eml in f.zip; ",
         ""},
        {"and on and on", deeper, "",
         "messages in files of messages, too many of them in each other"},
        {"nothing of the kind", "no message", "", ""},
        {"nothing at all", "", "", ""},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        const Result result = Filter(Mail({{"f.zip", Zip({{"m.eml", each.file}})}}), rules);
        EXPECT_EQ(result.findings, each.findings);
        EXPECT_EQ(result.tooComplex, each.tooComplex);
    }
}

}  // namespace
