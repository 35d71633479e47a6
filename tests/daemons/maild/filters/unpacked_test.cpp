// Files in archives and in TNEF, as the engine and the rules see them.
#include "daemons/maild/asked.h"
#include "filtering.h"

namespace {

using namespace std::string_literals;

struct Asked {
    std::vector<std::string> files;
    ScanResult result;
    bool tooMany = false;
    std::string findings;    // "rule: reason; ..."
    std::string tooComplex;  // of the filter

    bool Holds(const std::string& text) const {
        return std::any_of(files.begin(), files.end(), [&](const std::string& each) {
            return each.find(text) != std::string::npos;
        });
    }
};

// What the engine is asked about while the filter sees the message, which has no other questions.
Asked AskedOf(const std::string& message, const maild::AttachmentRules& rules = {}) {
    Asked asked;
    maild::Questions questions(KeepingIn(asked.files), static_cast<long long>(message.size()));
    maild::AttachmentFilter filter(rules,
                                   std::chrono::steady_clock::now() + std::chrono::seconds(30));
    filter.AskThrough(&questions);
    Show(message, filter);
    filter.AskThrough(nullptr);
    asked.result = questions.Result();
    asked.tooMany = questions.TooMany();
    asked.tooComplex = filter.TooComplex();
    for (const maild::Finding& each : filter.Findings())
        asked.findings += each.rule + ": " + each.reason + "; ";
    return asked;
}

const std::string kWord = "a word that is looked for";

TEST(Unpacked, WhatEnginesMayNotUnpack) {
    const std::vector<Packed> one = {{"a.txt", kWord}};
    const std::string two =
        Pack("raw", "bzip2", {{"a", "x"}}) + Pack("raw", "bzip2", {{"a", kWord}});
    const std::string zip = Zip({{"b.txt", kWord}});
    const struct {
        const char* name;
        std::string file;
        std::size_t asked;
    } cases[] = {
        {"7z", Pack("7zip", "none", one), 1},
        {"7z of another method", Pack("7zip", "none", one, nullptr, "7zip:compression=bzip2"), 1},
        {"7z in a zip", Zip({{"b.7z", Pack("7zip", "none", one)}}), 1},
        {"bzip2, two behind one another", two, 1},
        {"zstd", Pack("raw", "zstd", one), 1},
        {"tar in lzma", Pack("ustar", "lzma", one), 1},
        {"ar", Pack("arbsd", "none", one), 1},
        {"zip", zip, 0},
        {"tar in gzip", Pack("ustar", "gzip", one), 0},
        {"xz", Pack("raw", "xz", one), 0},
    };
    for (const auto& each : cases) {
        const Asked asked = AskedOf(Mail({{"f.bin", each.file}}));
        EXPECT_EQ(asked.files.size(), each.asked) << each.name;
        EXPECT_EQ(asked.Holds(kWord), each.asked > 0) << each.name;
        EXPECT_EQ(asked.tooComplex, "") << each.name;
    }
}

// In few questions, however many there are, and however well they were packed.
TEST(Unpacked, ManyFiles) {
    std::vector<Packed> files;
    for (int i = 0; i < 1000; ++i) files.push_back({std::to_string(i), std::to_string(i) + ","});
    const std::string long1(4 << 20, 'x');
    files.push_back({"long", long1 + kWord});
    files.push_back({"long too", long1 + "at the end"});
    const Asked asked = AskedOf(Mail({{"f.7z", Pack("7zip", "none", files)}}));
    EXPECT_EQ(asked.files.size(), 2U);
    EXPECT_TRUE(asked.Holds("999,"));
    EXPECT_TRUE(asked.Holds(kWord));
    EXPECT_TRUE(asked.Holds("at the end"));
    EXPECT_FALSE(asked.tooMany);
    for (const std::string& each : asked.files) {
        EXPECT_EQ(each.size() % 512, 0U);
        EXPECT_EQ(each.substr(257, 5), "ustar");
    }
}

TEST(Unpacked, ZipsBehindOneAnotherInAnArchive) {
    const std::string first = Zip({{"a.txt", "x"}});
    const std::string second = Zip({{"b.txt", kWord}});
    const Asked asked = AskedOf(Mail({{"f.zip", Zip({{"in.zip", first + second}})}}));
    EXPECT_TRUE(asked.Holds(second));
    EXPECT_EQ(asked.files.front(), first);
    EXPECT_EQ(AskedOf(Mail({{"f.zip", Zip({{"in.zip", second}})}})).files.size(), 0U);
}

TEST(Unpacked, MessagesInArchives) {
    // Of headers by which no engine would know it.
    const std::string message = "X-A: b\n\nhello\nbegin 644 a\n#86)C\n`\nend\n";
    const Asked asked = AskedOf(Mail({{"f.zip", Zip({{"m.eml", message}})}}));
    EXPECT_TRUE(asked.Holds("Received: from spool\r\nX-A: b\n"));
    EXPECT_NE(std::find(asked.files.begin(), asked.files.end(), "abc"), asked.files.end());
    std::vector<Packed> many;
    for (int i = 0; i < 300; ++i)
        many.push_back({std::to_string(i) + ".eml", "A: b\n\nx" + std::to_string(i)});
    EXPECT_FALSE(AskedOf(Mail({{"f.zip", Zip(many)}})).tooMany);
    std::vector<std::string> streams;
    for (int i = 0; i < 16; ++i)
        streams.push_back(Pack("raw", "bzip2", {{"a", std::to_string(i)}}));
    std::vector<Packed> packed;
    for (const std::string& each : streams) {
        for (const std::string& other : streams)
            packed.push_back({std::to_string(packed.size()) + ".bz2", each + other});
    }
    EXPECT_EQ(AskedOf(Mail({{"f.zip", Zip(packed)}})).files.size(), 1U);
}

TEST(Unpacked, FilesInCalendars) {
    const maild::AttachmentRules rules{{NameRule("js", "*.js"), NameRule("exe", "*.exe")}, {}};
    const std::string coded = Base64Encode(std::string("#!js\n") + std::string(60000, 'x'));
    std::string folded;
    for (std::size_t at = 0; at < coded.size(); at += 70) folded += coded.substr(at, 70) + "\n ";
    const std::string zip = Base64Encode(Zip({{"b.exe", "x"}}));
    const struct {
        const char* name;
        std::string line;
        const char* findings;
        const char* type = "text/calendar";
    } cases[] = {
        {"in one line", "ATTACH;VALUE=BINARY;ENCODING=BASE64;X-FILENAME=a.js:" + coded,
         "js: a.js in a part of type text/calendar; "},
        {"folded, a name in quotes",
         "ATTACH;FILENAME=\"x:a.js\";\n encoding=base64;value=binary:" + folded,
         "js: x:a.js in a part of type text/calendar; "},
        {"an archive", "ATTACH;VALUE=BINARY;ENCODING=BASE64:" + zip,
         "exe: b.exe in a file in a part of type text/calendar; "},
        {"a photo in a card", "PHOTO;ENCODING=b;FILENAME=a.js:" + zip, "", "text/vcard"},
        {"a link", "ATTACH;FILENAME=a.js:https://example.org/a.js", ""},
        {"a text", "DESCRIPTION:ATTACH;ENCODING=BASE64;FILENAME=a.js:" + coded, ""},
        {"an entry of something else", "ATTACH;ENCODING=BASE64;FILENAME=a.js:" + coded, "",
         "text/plain"},
    };
    for (const auto& each : cases) {
        const Asked asked = AskedOf("Content-Type: " + std::string(each.type) +
                                        "\n\nBEGIN:VCALENDAR\n" + each.line + "\nEND:VCALENDAR\n",
                                    rules);
        EXPECT_EQ(asked.findings, each.findings) << each.name;
    }
}

std::string Little(std::size_t number, int bytes = 4) {
    std::string text;
    for (int i = 0; i < bytes; ++i) text += static_cast<char>(number >> (8 * i));
    return text;
}
std::string Attribute(std::uint32_t id, const std::string& value) {
    return "\2" + Little(id) + Little(value.size()) + value + "..";
}
std::string Tnef(const std::string& attributes) {
    return "\x78\x9F\x3E\x22\1"s + '\0' + attributes;
}
// A name among an attachment's properties; `wide`: in UTF-16.
std::string Property(const std::string& name, bool wide) {
    std::string text;
    for (const char c : name + '\0') text += wide ? c + "\0"s : std::string(1, c);
    return (wide ? "\x1F\0\x07\x37"s : "\x1E\0\x04\x37"s) + Little(1) + Little(text.size()) + text;
}

TEST(Unpacked, NamesInTnef) {
    const maild::AttachmentRules rules{{NameRule("js", "*.js"), NameRule("com", "*.com"),
                                        TypeRule("type", "application/x-dosexec")},
                                       {}};
    const std::string begin = Attribute(0x69002, "\1\0............"s);
    const auto titled = [](const std::string& name) { return Attribute(0x18010, name + '\0'); };
    const std::string file = Attribute(0x6800F, "x");
    const std::string inner = "\x0D\0\x01\x37"s + Tnef(begin + titled("b.js") + file);
    const struct {
        const char* name;
        std::string tnef;
        const char* findings;
    } cases[] = {
        {"in front of its file", begin + titled("a.js") + file, "js: a.js in w.dat; "},
        {"behind it", begin + file + titled("a.js"), "js: a.js in w.dat; "},
        {"among its properties, long",
         begin + file + Attribute(0x69005, Little(9) + Property("a.js", false)),
         "js: a.js in w.dat; "},
        {"the same in UTF-16", begin + file + Attribute(0x69005, Property("a.js", true)),
         "js: a.js in w.dat; "},
        {"far behind in them",
         begin + Attribute(0x69005, std::string(65530, '.') + Property("a.js", true)),
         "js: a.js in w.dat; "},
        {"of a file that has another one, too",
         begin + titled("a.txt") + file + begin + titled("a.js") + file, "js: a.js in w.dat; "},
        {"of another attachment",
         begin + titled("a.txt") + Attribute(0x6800F, kProgram) + begin + titled("b.txt") + file,
         "type: a.txt in w.dat; "},
        {"of a message's attachment", begin + Attribute(0x69005, inner), "js: b.js in w.dat; "},
        {"a subject",
         begin + titled("news of x.com") + Attribute(0x69005, "...." + Tnef(begin + file)), ""},
        {"no subject, as there is a file",
         begin + titled("x.com") + file + Attribute(0x69005, "...." + Tnef(begin)),
         "com: x.com in w.dat; "},
        {"of a message in a file",
         begin + titled("m.eml") + Attribute(0x6800F, Mail({{"c.js", "x"}})),
         "js: c.js in m.eml in w.dat; "},
        {"cut off", begin + file + "\2" + Little(0x18010) + Little(99) + "a.js",
         "js: a.js in w.dat; "},
    };
    for (const auto& each : cases) {
        const Asked asked = AskedOf(Mail({{"w.dat", Tnef(each.tnef)}}), rules);
        EXPECT_EQ(asked.findings, each.findings) << each.name;
        EXPECT_EQ(asked.tooComplex, "") << each.name;
    }
    // Nobody knows which of many a reader takes.
    std::string many = begin + file;
    for (int i = 0; i < 20; ++i) many += titled(std::to_string(i));
    EXPECT_NE(AskedOf(Mail({{"w.dat", Tnef(many + titled("a.js"))}}), rules).tooComplex, "");
}

}  // namespace
