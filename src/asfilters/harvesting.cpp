#include "asfilters/harvesting.h"

#include <chrono>
#include <cstring>
#include <thread>

#include "asfilters/text.h"
#include "text/ascii.h"
#include "trelis/buffered.h"

namespace {

constexpr char kRoot[] = "/VTWIN/Filters/AS/DirectoryHarvesting";
constexpr int kDefaultTimeout = 45;  // seconds

int ReadTimeout(const std::string& key) {
    char value[asfilters::kValueSize];
    if (BufferedGetValue(kLocalStore, key.c_str(), value, sizeof value) != 0)
        return kDefaultTimeout;
    const int seconds = asfilters::DecimalNumber(value);
    return seconds < 1 ? kDefaultTimeout : seconds;
}

}  // namespace

CDirectoryHarvesting::Set CDirectoryHarvesting::Set::Read() {
    Set set;
    const std::string root(kRoot);
    set.sendDenyMessage = asfilters::ReadFlag(root + "/EnabledSendDenyMessage");
    set.denyText = asfilters::ReadDenyText(root);
    set.responseTimeout = ReadTimeout(root + "/ResponseTimeout");
    return set;
}

int CDirectoryHarvesting::Load() {
    configuration_.Load();
    return 0;
}

int CDirectoryHarvesting::CheckRecipient(const char* recipient, const char* domain, char* denyText,
                                         unsigned denySize) {
    auto set = configuration_.Current();
    if (set == nullptr) return 3;
    const char* at = std::strchr(recipient, '@');
    if (at != nullptr && !EqualIgnoringCase(at + 1, domain)) return -1;
    asfilters::WriteDenyReply(set->sendDenyMessage, set->denyText, denyText, denySize);
    const std::chrono::seconds delay(set->responseTimeout);
    set.reset();
    std::this_thread::sleep_for(delay);
    // Nothing of this object from here on: a stop of the service may have destroyed it meanwhile.
    return 2;
}
