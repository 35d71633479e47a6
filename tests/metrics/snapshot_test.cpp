#include "metrics/snapshot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>

#include "metrics/count.h"
#include "support/instance.h"

namespace metrics {
namespace {

std::string Bytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream all;
    all << file.rdbuf();
    return all.str();
}

void PutNumber(std::string& bytes, std::size_t at, std::uint64_t value) {
    std::memcpy(bytes.data() + at, &value, sizeof value);
}

TEST(Snapshot, TakesNoFileThatItDoesNotKnow) {
    ASSERT_TRUE(Open(Program::kProxy));
    const std::string good = Bytes(g_instance.Path() + "/metrics/vtsmtpproxy");
    ASSERT_EQ(good.size(), sizeof(Page));
    const struct {
        const char* what;
        std::function<void(std::string&)> change;
        bool taken = false;
    } cases[] = {
        {"as it is", [](std::string&) {}, true},
        {"other magic", [](std::string& all) { all[0] = 'X'; }},
        {"a newer layout",
         [](std::string& all) { PutNumber(all, offsetof(Header, version), kLayoutVersion + 1); }},
        {"an older layout",
         [](std::string& all) { PutNumber(all, offsetof(Header, version), kLayoutVersion - 1); }},
        {"another table of rows", [](std::string& all) { all[offsetof(Header, shape)] ^= 1; }},
        {"another size", [](std::string& all) { all[offsetof(Header, bytes)] ^= 8; }},
        {"cut", [](std::string& all) { all.pop_back(); }},
        {"cut in the header", [](std::string& all) { all.resize(sizeof(Header) - 1); }},
        {"longer", [](std::string& all) { all += std::string(4096, 'x'); }},
        {"much longer", [](std::string& all) { all += std::string(2 << 20, 'x'); }},
        {"empty", [](std::string& all) { all.clear(); }},
    };
    const std::string path = g_instance.Path() + "/changed";
    for (const auto& each : cases) {
        std::string bytes = good;
        each.change(bytes);
        std::ofstream(path, std::ios::binary) << bytes;
        EXPECT_EQ(ReadFile(Program::kProxy, path).has_value(), each.taken) << each.what;
    }
    EXPECT_FALSE(ReadFile(Program::kProxy, path + ".none"));
    EXPECT_FALSE(ReadFile(Program::kProxy, g_instance.Path())) << "a folder";
    std::filesystem::create_symlink(g_instance.Path() + "/metrics/vtsmtpproxy", path + ".link");
    EXPECT_FALSE(ReadFile(Program::kProxy, path + ".link"));
    ASSERT_EQ(mkfifo((path + ".fifo").c_str(), 0600), 0);
    EXPECT_FALSE(ReadFile(Program::kProxy, path + ".fifo")) << "nobody waits for a writer";
}

// Whatever stands in the names, it leads nowhere.
TEST(Snapshot, BelievesNoCountOfNames) {
    ASSERT_TRUE(Open(Program::kProxy));
    std::string bytes = Bytes(g_instance.Path() + "/metrics/vtsmtpproxy");
    PutNumber(bytes, offsetof(Page, interfaces), ~std::uint64_t{0});
    std::memset(bytes.data() + offsetof(Page, names), 'n', sizeof(Page::names));
    std::memset(bytes.data() + offsetof(Header, program), 'v', kVersionBytes);
    const std::string path = g_instance.Path() + "/names";
    std::ofstream(path, std::ios::binary) << bytes;
    const auto read = ReadFile(Program::kProxy, path);
    ASSERT_TRUE(read);
    ASSERT_EQ(read->interfaces.size(), kInterfacePlaces);
    EXPECT_EQ(read->interfaces.back(), std::string(kNameBytes, 'n'));
    EXPECT_EQ(read->version, std::string(kVersionBytes, 'v'));
}

// A process that is killed leaves its totals, and nothing of it that runs.
TEST(Snapshot, OfADeadProgramKeepsTheTotals) {
    const pid_t child = fork();
    if (child == 0) {
        if (!Open(Program::kMailDaemon)) _exit(1);
        Add<Metric::kMessages>(Verdict::kForward, 3);
        Add<Metric::kSessionsActive>(0, 2);
        const auto alive = Read(Program::kMailDaemon);
        if (!alive || !alive->running || alive->Gauge(Metric::kSessionsActive) != 2) _exit(2);
        kill(getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << WEXITSTATUS(status);
    const auto dead = Read(Program::kMailDaemon);
    ASSERT_TRUE(dead);
    EXPECT_FALSE(dead->running);
    EXPECT_EQ(dead->process, static_cast<std::uint64_t>(child));
    EXPECT_EQ(dead->Of(Metric::kMessages)[0], 3U);
    EXPECT_EQ(dead->Gauge(Metric::kSessionsActive), 0);
    ASSERT_TRUE(Open(Program::kMailDaemon)) << "its lock is gone with it";
    EXPECT_TRUE(Read(Program::kMailDaemon)->running);
}

}  // namespace
}  // namespace metrics
