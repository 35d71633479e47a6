#include "session/message/spool_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "support/instance.h"
#include "support/no_memory.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class Spool : public testing::Test {
  protected:
    Spool() {
        for (const char* each : {"/tmp", "/services", "/pipes"})
            fs::create_directories(g_instance.Path() + each);
        EXPECT_TRUE(spool_.Name(4711));
    }
    // A message in its file.
    void Have(const std::string& text) {
        ASSERT_TRUE(spool_.OpenNext());
        ASSERT_TRUE(spool_.Write(text));
        ASSERT_TRUE(spool_.Close());
    }
    // What would go to the server.
    std::string Whole() const {
        if (const auto kept = spool_.Kept()) return std::string(*kept);
        std::string text(static_cast<std::size_t>(spool_.Size()), '\0');
        EXPECT_EQ(spool_.File().ReadAt(0, text.data(), text.size()), spool_.Size());
        return text;
    }
    static std::string Read(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    ino_t Number() const {
        struct stat info {};
        EXPECT_EQ(stat(spool_.Path().c_str(), &info), 0);
        return info.st_ino;
    }
    SpoolFile spool_;
};

void Overwrite(const std::string& path, const std::string& text, int flags) {
    const int file = open(path.c_str(), O_WRONLY | flags);
    EXPECT_EQ(write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(file);
}

// What counts is what the scan leaves, however soon it comes and whatever its size.
TEST_F(Spool, WhatTheScanLeavesIsWhatGoesOn) {
    const std::string small(1000, 's');
    const std::string large(200000, 'l');
    using Change = std::function<void(const std::string&)>;
    struct Case {
        const char* what;
        std::function<std::string(const std::string&)> becomes;
        Change change;
    };
    const auto marked = [](std::string text) { return text.replace(0, 5, "MARKS"); };
    const Case cases[] = {
        {"nothing", [](const std::string& text) { return text; }, [](const std::string&) {}},
        {"same size, in place", marked,
         [](const std::string& path) { Overwrite(path, "MARKS", 0); }},
        {"the same, with its time put back", marked,
         [](const std::string& path) {
             std::this_thread::sleep_for(20ms);
             const auto time = fs::last_write_time(path);
             Overwrite(path, "MARKS", 0);
             fs::last_write_time(path, time);
         }},
        {"grown", [](const std::string& text) { return text + "MORE"; },
         [](const std::string& path) { Overwrite(path, "MORE", O_APPEND); }},
        {"cut", [](const std::string& text) { return text.substr(0, 7); },
         [](const std::string& path) { fs::resize_file(path, 7); }},
        {"replaced", marked,
         [](const std::string& path) {
             fs::copy_file(path, path + ".new");
             Overwrite(path + ".new", "MARKS", 0);
             fs::last_write_time(path + ".new", fs::last_write_time(path));
             fs::rename(path + ".new", path);
         }},
    };
    for (const std::string& text : {small, large}) {
        for (const Case& each : cases) {
            ASSERT_NO_FATAL_FAILURE(Have(text));
            EXPECT_EQ(Read(spool_.Path()), text);
            each.change(spool_.Path());
            ASSERT_EQ(spool_.LookAgain(), SpoolFile::Found::kWhole) << each.what;
            EXPECT_EQ(Whole(), each.becomes(text)) << each.what;
        }
        ASSERT_NO_FATAL_FAILURE(Have(text));
        fs::remove(spool_.Path());
        EXPECT_EQ(spool_.LookAgain(), SpoolFile::Found::kGone);
    }
}

TEST_F(Spool, PiecesAreStoredAsTheyCome) {
    ASSERT_NO_FATAL_FAILURE(Have("first "));
    std::string all = "first ";
    for (const std::size_t size : {10, 70000, 3}) {
        const std::string piece(size, 'p');
        ASSERT_TRUE(spool_.OpenAgain() && spool_.Write(piece) && spool_.Close());
        all += piece;
        EXPECT_EQ(Read(spool_.Path()), all);
    }
    ASSERT_EQ(spool_.LookAgain(), SpoolFile::Found::kWhole);
    EXPECT_EQ(Whole(), all);
}

// A file is used again, but never one that somebody still has.
TEST_F(Spool, AFileThatSomebodyHasIsHisForGood) {
    ASSERT_NO_FATAL_FAILURE(Have("the first message"));
    const ino_t first = Number();
    ASSERT_NO_FATAL_FAILURE(Have("another"));
    EXPECT_EQ(Number(), first) << "nobody has it: what follows would show nothing";
    EXPECT_EQ(Read(spool_.Path()), "another");

    const int reader = open(spool_.Path().c_str(), O_RDONLY);
    ASSERT_NO_FATAL_FAILURE(Have("a third one"));
    char text[20] = "";
    EXPECT_EQ(read(reader, text, sizeof text), 7);
    EXPECT_STREQ(text, "another");
    close(reader);

    const std::string kept = g_instance.Path() + "/kept";
    fs::create_hard_link(spool_.Path(), kept);
    ASSERT_NO_FATAL_FAILURE(Have("a fourth one"));
    EXPECT_EQ(Read(kept), "a third one");
    fs::rename(spool_.Path(), kept + "2");
    ASSERT_NO_FATAL_FAILURE(Have("a fifth one"));
    EXPECT_EQ(Read(kept + "2"), "a fourth one");
    spool_.Remove();
    EXPECT_TRUE(fs::is_empty(g_instance.Path() + "/tmp/VTNP"));
}

// Somebody clears the directory away, and then the message is kept elsewhere: the file has one name
// again, which is not ours.
TEST_F(Spool, AFileWhoseOwnNameIsGoneIsNoneOfOurs) {
    ASSERT_NO_FATAL_FAILURE(Have("to be kept"));
    fs::remove_all(g_instance.Path() + "/tmp/spare");
    const std::string kept = g_instance.Path() + "/elsewhere";
    fs::rename(spool_.Path(), kept);
    ASSERT_NO_FATAL_FAILURE(Have("the next one"));
    EXPECT_EQ(Read(kept), "to be kept");
}

// What somebody writes into a file that waits for its next message is no part of it.
TEST_F(Spool, ASpareFileThatSomebodyHasWrittenToIsNoneAnyMore) {
    const std::string directory = g_instance.Path() + "/tmp/spare";
    ASSERT_NO_FATAL_FAILURE(Have("the first"));
    spool_.Remove();
    for (const bool pipe : {false, true}) {
        for (const auto& spare : fs::directory_iterator(directory)) {
            if (!pipe) {
                Overwrite(spare.path(), "foreign ", 0);
                continue;
            }
            fs::remove(spare);
            EXPECT_EQ(mkfifo(spare.path().c_str(), 0600), 0);
        }
        ASSERT_NO_FATAL_FAILURE(Have("a message"));
        EXPECT_EQ(Read(spool_.Path()), "a message");
        spool_.Remove();
    }
}

// A backup, for example, that opens the file at the very moment of the question.
TEST_F(Spool, TheQuestionWhoHasAFileEndsNoProcess) {
    const std::string path = g_instance.Path() + "/asked";
    const platform::File file = platform::File::CreateExclusive(path.c_str(), -1);
    ASSERT_TRUE(file);
    std::atomic<bool> over{false};
    std::thread other([&] {
        for (int i = 0; i < 20000; ++i) EXPECT_TRUE(platform::File(open(path.c_str(), O_RDONLY)));
        over = true;
    });
    int ours = 0;
    while (!over) ours += file.OnlyOurs(path.c_str()) ? 1 : 0;
    other.join();
    EXPECT_GT(ours, 0);
    EXPECT_TRUE(file.OnlyOurs(path.c_str()));
}

// A scan that the session has given up may still be about its name when the next session has the
// number of its socket.
TEST_F(Spool, ANameIsNoOtherMessagesLater) {
    ASSERT_NO_FATAL_FAILURE(Have("the first"));
    EXPECT_TRUE(spool_.Path().ends_with("VTSMTP4711x1")) << spool_.Path();
    ASSERT_NO_FATAL_FAILURE(Have("given up"));
    spool_.KeepName();
    spool_.Remove();
    for (const auto& [socket, name] : {std::pair{4711, "VTSMTP4711x3"}, {4712, "VTSMTP4712x1"}}) {
        SpoolFile next;
        EXPECT_TRUE(next.Name(socket));
        ASSERT_TRUE(next.OpenNext());
        EXPECT_TRUE(next.Path().ends_with(name)) << next.Path();
    }
}

TEST_F(Spool, AGroupThatIsSetLaterMayRead) {
    const auto mode = [](const std::string& path) {
        struct stat info {};
        EXPECT_EQ(stat(path.c_str(), &info), 0);
        return info.st_mode & 0777;
    };
    ASSERT_NO_FATAL_FAILURE(Have("ours alone"));
    EXPECT_EQ(mode(spool_.Path()), 0600U);
    SetSpoolGroup(static_cast<int>(getgid()));
    ASSERT_NO_FATAL_FAILURE(Have("shared"));
    EXPECT_EQ(mode(spool_.Path()), 0640U);
    EXPECT_EQ(mode(fs::path(spool_.Path()).parent_path()), 0750U);
    SetSpoolGroup(-1);
    ASSERT_NO_FATAL_FAILURE(Have("ours alone again"));
    EXPECT_EQ(mode(spool_.Path()), 0600U);
}

// Zeros stand in the place of a small message, and none may pass for another one.
TEST_F(Spool, NothingOfAMessageStaysInItsFile) {
    for (const std::size_t size : {1000, 30000, 200000, 20}) {
        ASSERT_NO_FATAL_FAILURE(Have(std::string(size, 'm')));
        spool_.Remove();
        int files = 0;
        for (const auto& spare : fs::directory_iterator(g_instance.Path() + "/tmp/spare")) {
            const std::string left = Read(spare.path());
            EXPECT_EQ(left, std::string(left.size(), '\0')) << size;
            EXPECT_LE(left.size(), 65536U);
            ++files;
        }
        EXPECT_EQ(files, 1) << "the same file goes on";
    }
    SpoolFile other;
    ASSERT_TRUE(other.Name(4714) && other.OpenNext() && other.Write("other") && other.Close());
    other.Remove();
    ASSERT_NO_FATAL_FAILURE(Have("ours"));  // in the one that came back last
    SpoolFile third;
    ASSERT_TRUE(third.Name(4715) && third.OpenNext() && third.Write("a third") && third.Close());
    const std::string path = third.Path();
    for (const auto& spare : fs::directory_iterator(g_instance.Path() + "/tmp/spare")) {
        if (fs::hard_link_count(spare) == 2 && fs::equivalent(spare, path)) {
            third.Remove();
            fs::create_hard_link(spare, path);
            break;
        }
    }
    fs::rename(path, spool_.Path());
    EXPECT_EQ(spool_.LookAgain(), SpoolFile::Found::kUnreadable) << "zeros that wait";
}

// What the file held before is longer, or shorter, or there is nothing to be put in its place.
TEST_F(Spool, AMessageIsAllThatItsFileHolds) {
    for (const std::size_t size : {100, 5000, 100, 0, 70000, 0, 64000, 65536, 65537, 1}) {
        const std::string text(size, 'm');
        ASSERT_NO_FATAL_FAILURE(Have(text));
        EXPECT_EQ(Read(spool_.Path()), text) << size;
        ASSERT_EQ(spool_.LookAgain(), SpoolFile::Found::kWhole);
        EXPECT_EQ(Whole(), text) << size;
    }
}

// The names of files that wait, and of those in hand, are somebody's to move about: what goes on is
// the message's own, or nothing.
TEST_F(Spool, AnotherFileUnderASpareNameIsNotTakenForIt) {
    ASSERT_NO_FATAL_FAILURE(Have("the first"));
    spool_.Remove();
    for (const auto& spare : fs::directory_iterator(g_instance.Path() + "/tmp/spare")) {
        // As many names as are expected, but none of them the message's.
        for (const char* each : {"/one", "/two"})
            fs::create_hard_link(spare,
                                 g_instance.Path() + each + spare.path().filename().string());
        fs::remove(spare);
        std::ofstream(spare.path()) << "somebody else's mail";
    }
    ASSERT_NO_FATAL_FAILURE(Have("a message"));
    EXPECT_EQ(Read(spool_.Path()), "a message");
    ASSERT_EQ(spool_.LookAgain(), SpoolFile::Found::kWhole);
    EXPECT_EQ(Whole(), "a message");
}

TEST_F(Spool, TwoMessagesWhoseNamesAreExchangedGoNowhere) {
    SpoolFile other;
    ASSERT_TRUE(other.Name(4713) && other.OpenNext() && other.Write("other") && other.Close());
    ASSERT_NO_FATAL_FAILURE(Have("ours"));
    const std::string away = g_instance.Path() + "/away";
    fs::rename(spool_.Path(), away);
    fs::rename(other.Path(), spool_.Path());
    fs::rename(away, other.Path());
    EXPECT_EQ(other.LookAgain(), SpoolFile::Found::kUnreadable);
    other.Remove();
    EXPECT_EQ(spool_.LookAgain(), SpoolFile::Found::kUnreadable) << "also behind the other's end";
}

TEST_F(Spool, AMessageThatIsCutWhileItComesIsNotStored) {
    const std::string large(100000, 'l');
    ASSERT_TRUE(spool_.OpenNext() && spool_.Write(large));
    fs::resize_file(spool_.Path(), 0);
    ASSERT_TRUE(spool_.Write(large));
    EXPECT_FALSE(spool_.Close());

    ASSERT_NO_FATAL_FAILURE(Have("a first chunk"));
    fs::resize_file(spool_.Path(), 0);
    ASSERT_TRUE(spool_.OpenAgain() && spool_.Write("a second one"));
    EXPECT_FALSE(spool_.Close());
}

// A spare one may have come there; the scan itself may leave nothing of a message.
TEST_F(Spool, AnotherFileThatIsEmptyIsNoMessage) {
    ASSERT_NO_FATAL_FAILURE(Have("a message"));
    fs::resize_file(spool_.Path(), 0);
    EXPECT_EQ(spool_.LookAgain(), SpoolFile::Found::kWhole);
    ASSERT_NO_FATAL_FAILURE(Have("a message"));
    std::ofstream(spool_.Path() + ".new").close();
    fs::rename(spool_.Path() + ".new", spool_.Path());
    EXPECT_EQ(spool_.LookAgain(), SpoolFile::Found::kUnreadable);
}

// It may be that nobody can read it any more: the next message had better have another.
TEST_F(Spool, AFileWhoseScanHasFailedIsNotUsedAgain) {
    ASSERT_NO_FATAL_FAILURE(Have("not scanned"));
    fs::permissions(spool_.Path(), fs::perms::none);
    spool_.KeepName();
    ASSERT_NO_FATAL_FAILURE(Have("the next one"));
    EXPECT_NE(fs::status(spool_.Path()).permissions(), fs::perms::none);
}

#ifndef __SANITIZE_ADDRESS__
// Where memory has run out a session still has to end.
TEST_F(Spool, AFileGoesWithoutMemory) {
    ASSERT_NO_FATAL_FAILURE(Have("a message"));
    t_poor = true;
    EXPECT_NO_THROW(spool_.Remove());
    t_poor = false;
    EXPECT_TRUE(fs::is_empty(g_instance.Path() + "/tmp/VTNP"));
}
#endif

}  // namespace
