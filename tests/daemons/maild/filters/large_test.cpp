// Archives of many bytes, of which few are looked into at once.
#include "daemons/maild/attachments/large.h"

#include <array>
#include <chrono>
#include <memory>
#include <random>
#include <vector>

#include "daemons/maild/attachments/archive.h"
#include "packing.h"
#include "support/instance.h"

namespace {

using maild::ArchiveLooker;
using maild::LargePlace;

TEST(LargeArchives, FewAtOnce) {
    const auto now = std::chrono::steady_clock::now;
    LargePlace next;
    {
        std::array<LargePlace, LargePlace::kPlaces> all;
        for (LargePlace& each : all) EXPECT_TRUE(each.Take(now()) && each.Take(now()));
        EXPECT_FALSE(next.Take(now() + std::chrono::milliseconds(20)));
    }
    EXPECT_TRUE(next.Take(now()));
}

// The scan of a message goes on behind its archives: it holds up nobody then.
TEST(LargeArchives, OneThatHasBeenLookedAtLetsOthersIn) {
    std::mt19937 random(1);
    std::string noise;
    while (noise.size() < 1U << 20) noise += static_cast<char>(random());
    const std::string large = Zip({{"a", std::string(20U << 20, 'x')}, {"b", noise}});
    std::vector<std::unique_ptr<ArchiveLooker>> scans;
    for (int i = 0; i <= LargePlace::kPlaces; ++i) {
        const auto end = ArchiveLooker::Clock::now() + std::chrono::seconds(10);
        scans.push_back(
            std::make_unique<ArchiveLooker>(maild::ArchiveLimits(), end, maild::MagicUse::kNever,
                                            [](const maild::Attachment&, const std::string&) {}));
        maild::Spill spill(true);
        spill.Write(large);
        maild::Scratch* const file = spill.Finish();
        ASSERT_NE(file, nullptr);
        scans.back()->Look(spill, *file, "f.zip");
        EXPECT_EQ(scans.back()->TooComplex(), "");
    }
}

}  // namespace
