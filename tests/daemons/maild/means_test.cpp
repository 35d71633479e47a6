// What the scan daemon makes of having no means of its own to ask the engine.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "daemons/maild/engine/engines.h"
#include "platform/file.h"
#include "support/instance.h"
#include "support/no_descriptors.h"

namespace {

using namespace std::chrono_literals;

TEST(Means, NoDescriptorIsNoWordAboutTheEngine) {
    auto settings = std::make_shared<Settings>();
    settings->clamdSocket = g_instance.Path() + "/nothing";
    settings->maxFileSize = 1000;
    const platform::File file = platform::File::OpenRead("/proc/self/exe");
    Engines engines;
    const auto scan = [&] {
        return engines
            .Scan(file.Descriptor(), Connection::Clock::now() + 10s,
                  [](const EngineProof&) { return true; })
            .outcome;
    };
    {
        const NoDescriptors none;
        engines.Start(settings);
        EXPECT_EQ(scan(), ScanOutcome::kNoMeans);
    }
    EXPECT_EQ(scan(), ScanOutcome::kDown);
}

}  // namespace
