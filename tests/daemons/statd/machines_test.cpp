// Who may ask for what machines read, by every word of the key and from everywhere.
#include "daemons/statd/web/machines.h"

#include <gtest/gtest.h>

#include "support/instance.h"
#include "trelis/keys/rows.h"
#include "trelis/trelis.h"

namespace stats {
namespace {

TEST(Machines, WhoMayAsk) {
    ASSERT_EQ(TrelisInit2(), 0);
    const std::string key = std::string(trelis::kStatsKey) + "/MetricsAccess";
    using Access = MachineAccess;
    const struct {
        const char* word;  // null: none is set
        Access local;
        Access remote;
    } cases[] = {
        {nullptr, Access::kFree, Access::kNobody},
        {"loopback", Access::kFree, Access::kNobody},
        {"LoopBack", Access::kFree, Access::kNobody},
        {"account", Access::kAccount, Access::kAccount},
        {"all", Access::kFree, Access::kFree},
        {"everybody", Access::kAccount, Access::kAccount},
        {"all ", Access::kAccount, Access::kAccount},
        {"0", Access::kAccount, Access::kAccount},
    };
    for (const auto& each : cases) {
        if (each.word != nullptr) {
            ASSERT_EQ(TrelisSetValue(kLocalStore, key.c_str(), each.word), 0);
        }
        HttpRequest request;
        EXPECT_EQ(MayAsk(request), each.remote) << (each.word != nullptr ? each.word : "(none)");
        request.local = true;
        EXPECT_EQ(MayAsk(request), each.local) << (each.word != nullptr ? each.word : "(none)");
    }
    TrelisUninit();
}

// Nothing runs in this instance.
TEST(Machines, EveryReasonIsTold) {
    const HttpResponse ready = ReadyPage();
    EXPECT_EQ(ready.status, 503U);
    EXPECT_EQ(ready.body,
              "the proxy does not run\nthe mail daemon does not run\nthe store can't be read\n");
    EXPECT_EQ(HealthPage().status, 200U);
}

}  // namespace
}  // namespace stats
