#include "asfilters/harvesting.h"

#include <chrono>
#include <cstring>

#include "asfilters/text.h"
#include "platform/task.h"
#include "text/ascii.h"
#include "trelis/keys/settings.h"

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kHarvestingKey, name}; }

}  // namespace

std::shared_ptr<const CDirectoryHarvesting::Set> CDirectoryHarvesting::Set::Read() {
    if (!trelis::ReadFlag(Key("Enabled"))) return nullptr;
    auto set = std::make_shared<Set>();
    set->sendDenyMessage = trelis::ReadFlag(Key("EnabledSendDenyMessage"));
    set->denyText = asfilters::DenyText(trelis::ReadLine(Key("DenyMessage")), trelis::kDenyText);
    set->responseTimeout = trelis::ReadInt(Key("ResponseTimeout"));
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
    platform::SleepFor(delay);
    // Nothing of this object from here on: a stop of the service may have destroyed it meanwhile.
    return 2;
}
