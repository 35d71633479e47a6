#include "daemons/maild/engine/signatures.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using namespace std::string_view_literals;

TEST(Signatures, AChangeIsTold) {
    const struct {
        const char* name;
        std::string_view before;
        std::string_view after;
        bool changed;
    } cases[] = {
        {"the first answers are no change", ""sv, "1: ClamAV 1.4/27\0"sv, false},
        {"as before", "1: ClamAV 1.4/27\0"sv, "2: ClamAV 1.4/27\0"sv, false},
        {"a newer file", "1: ClamAV 1.4/27\0"sv, "2: ClamAV 1.4/28\0"sv, true},
        {"the files are gone", "1: ClamAV 1.4/27/Fri\0"sv, "2: ClamAV 1.4\0"sv, true},
        {"another number of scans", "1: QUEUE: 0 pools_used 5.8M x\0"sv,
         "2: QUEUE: 9 pools_used 5.8M y\0"sv, false},
        {"other memory", "1: pools 1 pools_used 5.8M x\0"sv, "2: pools 1 pools_used 5.9M x\0"sv,
         true},
        {"answers of other kinds", "1: PONG\0"sv, "2: UNKNOWN COMMAND\0"sv, false},
        {"rubbish", "\0\0"sv, " \0x\0"sv, false},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        SignatureWatch whole;
        EXPECT_FALSE(whole.Take(each.before));
        EXPECT_EQ(whole.Take(each.after), each.changed);
        SignatureWatch bytes;
        bytes.Take(each.before);
        bool changed = false;
        for (const char c : each.after) changed = bytes.Take({&c, 1}) || changed;
        EXPECT_EQ(changed, each.changed) << "byte by byte";
    }
}

}  // namespace
