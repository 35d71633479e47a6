#include "host/scan_limit.h"

#include "trelis/keys/settings.h"
#include "trelis/keys/size.h"

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kMailDaemonKey, name}; }
// What it is configured to take; else what it takes unasked, which it writes down at its start. 0
// there: all.
constexpr trelis::Key kLimitKeys[] = {Key("MaxFileSize"), Key("RTP/MaxFileSize")};

long long Read() {
    // With it the daemon lets a larger message pass as it is.
    if (trelis::ReadFlag(Key("PassWhenTooBig"))) return 0;
    for (const trelis::Key& key : kLimitKeys) {
        const long long size = ParseSize(trelis::ReadIfGiven(key).value_or("")).value_or(0);
        if (size > 0) return size;
    }
    return 0;
}

}  // namespace

std::shared_ptr<const long long> ReadScanLimit() {
    return std::make_shared<const long long>(Read());
}
