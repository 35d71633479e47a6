// A message that isn't there behind its scan: the daemon has taken it away, or somebody has cleared
// the directories, which must not be called accepted.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>

#include "session/message/spool_file.h"
#include "support/instance.h"

namespace {

namespace fs = std::filesystem;

TEST(SpoolGone, OnlyTheMessagesNameIsTheDaemonsToTake) {
    const std::string tmp = g_instance.Path() + "/tmp/";
    for (const char* each : {"tmp", "services", "pipes"})
        fs::create_directories(g_instance.Path() + "/" + each);
    using Found = SpoolFile::Found;
    const struct {
        const char* what;
        std::function<void(const std::string& path)> act;
        Found found;
    } cases[] = {
        {"removed", [](const std::string& path) { fs::remove(path); }, Found::kGone},
        {"moved", [](const std::string& path) { fs::rename(path, path + ".moved"); }, Found::kGone},
        {"the contents of both",
         [&](const std::string& path) {
             fs::remove(path);
             fs::remove_all(tmp + "spare");
         },
         Found::kUnreadable},
        {"its directory", [&](const std::string&) { fs::remove_all(tmp + "VTNP"); },
         Found::kUnreadable},
        {"both",
         [&](const std::string&) { fs::remove_all(tmp + "VTNP"), fs::remove_all(tmp + "spare"); },
         Found::kUnreadable},
    };
    SpoolFile spool;
    ASSERT_TRUE(spool.Name(4713));
    for (const auto& each : cases) {
        SCOPED_TRACE(each.what);
        for (const std::size_t size : {10, 100000}) {
            ASSERT_TRUE(spool.OpenNext() && spool.Write(std::string(size, 'm')) && spool.Close());
            each.act(spool.Path());
            EXPECT_EQ(spool.LookAgain(), each.found);
        }
    }
    ASSERT_TRUE(spool.OpenNext() && spool.Write("m") && spool.Close());
    EXPECT_EQ(spool.LookAgain(), Found::kWhole);
}

}  // namespace
