#include "asfilters/configuration.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "trelis/buffered.h"

namespace asfilters {
namespace {

// A full path stays below this, its zero byte included.
constexpr std::size_t kPathSize = 512;
constexpr char kDefaultDenyText[] = "550 5.7.1 Message Rejected";

}  // namespace

ConfigurationWatch::ConfigurationWatch(const char* root)
    : root_(root), opened_(TrelisInit2() >= 0), watch_(TrelisPlaceNotify(kLocalStore, root, 1)) {}

ConfigurationWatch::~ConfigurationWatch() {
    TrelisCancelNotify(kLocalStore, root_, 1, watch_);
    if (opened_) TrelisUninit();
}

ChildWalk::ChildWalk(const std::string& parent)
    : parent_(parent), walk_(TrelisEnumOpen(kLocalStore, parent.c_str())) {}

bool ChildWalk::Next(std::string& path) {
    // As wide as a path: a name that didn't fit would look like the end of the list and take the
    // entries behind it out of force.
    char name[kPathSize];
    while (walk_ != nullptr && BufferedEnumRead(kLocalStore, walk_, name, sizeof name) == 0) {
        path.assign(parent_).append("/").append(name);
        if (path.size() < kPathSize) return true;
    }
    return false;
}

bool ReadFlag(const std::string& key) {
    char value[kValueSize];
    return BufferedGetValue(kLocalStore, key.c_str(), value, sizeof value) >= 0 &&
           (value[0] == 'Y' || value[0] == 'y');
}

std::string ReadDenyText(const std::string& root) {
    char value[kValueSize];
    const std::string key = root + "/DenyMessage";
    const int result = BufferedGetValue(kLocalStore, key.c_str(), value, sizeof value);
    return result < 0 || value[0] == '\0' ? kDefaultDenyText : value;
}

int DecimalNumber(const char* text) {
    const long number = std::strtol(text, nullptr, 10);
    return static_cast<int>(
        std::clamp<long>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

}  // namespace asfilters
