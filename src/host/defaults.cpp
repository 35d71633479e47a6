// What the options register and unregister write and delete: the keys of the proxy and its filters,
// with one interface to begin with.
#include <string>

#include "host/smtp.h"
#include "platform/account.h"
#include "platform/library.h"
#include "trelis/keys/registration.h"
#include "trelis/keys/settings.h"

namespace {

constexpr char kInterface[] = "net";  // no IPAddress: it listens on all addresses
constexpr UINT kDisplayNameString = 120;
constexpr UINT kInterfaceNameString = 4800;

std::string ResourceText(UINT number) {
    char text[256];
    LoadStringA(nullptr, number, text, sizeof text);
    return text;
}

trelis::Registration Proxy() {
    constexpr trelis::Key kName{trelis::kInterfaceKey, "Name"};
    return {trelis::Program::kProxy,
            "VTSMTPProxy",
            ResourceText(kDisplayNameString),
            {kInterface},
            {{kName.Path({kInterface}), ResourceText(kInterfaceNameString)}}};
}

}  // namespace

int CSMTP::RegisterDefaults() { return WriteDefaults(platform::PersonName()); }

int CSMTP::WriteDefaults(const std::string& person) { return trelis::Register(Proxy(), person); }

int CSMTP::UnregisterDefaults() { return trelis::Unregister(Proxy(), platform::PersonName()); }
