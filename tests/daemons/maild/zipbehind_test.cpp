// Zips that a reader finds in a file that is no zip, or another one.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "daemons/maild/antivirus/zipbehind.h"
#include "daemons/maild/asked.h"

namespace {

struct Asked {
    std::set<std::string> files;
    bool tooMany = false;
};

// What the engine is asked about, of a file that comes in pieces.
Asked AskedOf(const std::string& file, std::size_t piece) {
    Asked asked;
    std::vector<std::string> files;
    maild::Questions questions(KeepingIn(files), static_cast<long long>(file.size()));
    maild::ZipBehind zip;
    for (std::size_t at = 0; at < file.size(); at += piece)
        EXPECT_TRUE(zip.Write(std::string_view(file).substr(at, piece)));
    zip.Finish(questions, "1");
    asked.files.insert(files.begin(), files.end());
    asked.tooMany = questions.TooMany();
    EXPECT_EQ(questions.Result().outcome, ScanOutcome::kClean);
    return asked;
}

// A number of a zip's directory, in so many bytes.
std::string Little(std::size_t number, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) text += static_cast<char>(number >> (8 * i));
    return text;
}

// A zip as far as it says where it is: what is in it is the engine's affair. `behind`: it counts
// from so many bytes in front of it. `comment`: the length that is told.
std::string ZipOf(char filling, std::size_t behind = 0, std::size_t comment = 0) {
    const std::string files = "PK\3\4" + std::string(100, filling);
    const std::string directory = "PK\1\2" + std::string(42, filling);
    return files + directory + "PK\5\6" + std::string(8, '\0') + Little(directory.size(), 4) +
           Little(behind + files.size(), 4) + Little(comment, 2);
}
// The same with numbers that the directory's end has no room for.
std::string LargeZipOf(char filling) {
    const std::string files = "PK\3\4" + std::string(100, filling);
    const std::string directory = "PK\1\2" + std::string(42, filling);
    return files + directory + "PK\6\6" + std::string(36, '\0') + Little(directory.size(), 8) +
           Little(files.size(), 8) + "PK\6\7" + std::string(16, '\0') + "PK\5\6" +
           std::string(8, '\0') + std::string(8, '\xFF') + Little(0, 2);
}

// Readers of zips begin at the end, or at the front, the engine at the front of what it knows.
TEST(ZipBehind, OtherBytes) {
    const std::string zip = ZipOf('z');
    const std::string other = ZipOf('o');
    const std::string front = "\x1F\x8B\b" + std::string(20, '\0');
    const std::string counted = ZipOf('z', front.size());
    const std::string mark = "PK\3\4";
    const std::string stored = mark + std::string(26, 's') + other;
    const std::string around = stored + "PK\1\2" + std::string(42, 's') + "PK\5\6" +
                               std::string(8, '\0') + Little(46, 4) + Little(stored.size(), 4) +
                               Little(0, 2);
    const std::string told = ZipOf('z', 0, 22);
    const std::string lie = "PK\5\6" + std::string(8, '\0') + Little(zip.size(), 4) +
                            Little(zip.size(), 4) + Little(7, 2);
    const struct {
        const char* name;
        std::string file;
        std::vector<std::string> asked;
    } cases[] = {
        {"behind something packed", front + zip, {zip}},
        {"far behind, across blocks", front + std::string(65536 - 23 - 2, 'x') + zip, {zip}},
        {"with a comment",
         front + ZipOf('z', 0, 60000) + std::string(60000, 'c'),
         {ZipOf('z', 0, 60000) + std::string(60000, 'c')}},
        {"with more behind it than a comment", front + zip + std::string(70000, 'c'), {zip}},
        {"with something else behind it", zip + "\r\n", {zip}},
        {"without an end", front + zip.substr(0, 100), {}},
        {"a zip and nothing else", zip, {}},
        {"with numbers of many bytes", LargeZipOf('z'), {}},
        {"within a zip", around, {}},
        {"that counts from the file's start",
         front + counted,
         {mark + std::string(front.size() - mark.size(), '\0') + counted, counted}},
        {"two of them", zip + other, {zip, other}},
        {"three of them", zip + other + around, {zip, other, around}},
        {"one of them of many bytes", zip + LargeZipOf('o'), {zip, LargeZipOf('o')}},
        {"two behind something", front + zip + other, {zip, other, zip + other}},
        {"behind the mark of a file alone", mark + zip, {zip}},
        {"behind the mark and more", mark + front + zip, {zip}},
        {"beside one that is said to be all", other + told + lie, {other, told + lie}},
    };
    for (const auto& each : cases) {
        for (const std::size_t piece : {std::size_t{65536}, std::size_t{1000}, std::size_t{7}}) {
            const Asked asked = AskedOf(each.file, piece);
            EXPECT_EQ(asked.files, std::set<std::string>(each.asked.begin(), each.asked.end()))
                << each.name << piece;
            EXPECT_FALSE(asked.tooMany) << each.name;
        }
    }
}

TEST(ZipBehind, ManyOthers) {
    std::string file;
    for (int i = 0; i < 300; ++i) file += ZipOf(static_cast<char>(i));
    const Asked asked = AskedOf(file + ZipOf('!') + "x", 1000);
    EXPECT_FALSE(asked.tooMany);
    EXPECT_LE(asked.files.size(), 20U);
    EXPECT_TRUE(asked.files.contains(ZipOf(0)));
    EXPECT_TRUE(asked.files.contains(ZipOf('!')));
    // More ends than are kept.
    std::string ends;
    for (int i = 0; i < 10100; ++i) ends += "PK\5\6" + std::string(18, '\0');
    const Asked many = AskedOf(ZipOf('a') + ends + ZipOf('b'), 65536);
    EXPECT_TRUE(many.files.contains(ZipOf('a')));
    EXPECT_TRUE(many.files.contains(ZipOf('b')));
}

// As a tar is, of documents.
TEST(ZipBehind, ManyInAFileOfAnotherKind) {
    std::string file(512, '\0');
    for (int i = 0; i < 300; ++i) file += ZipOf(static_cast<char>(i)) + std::string(1000, '\0');
    const Asked asked = AskedOf(file, 1000);
    EXPECT_FALSE(asked.tooMany);
    EXPECT_EQ(asked.files, std::set<std::string>({file.substr(512), ZipOf(0), ZipOf(43)}));
}

}  // namespace
