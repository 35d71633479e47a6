// What the options register and unregister write and delete: the keys of the proxy and its filters,
// with one interface to begin with.
#include <string>

#include "host/smtp.h"
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
    return {trelis::Program::kProxy, "VTSMTPProxy", ResourceText(kDisplayNameString), {kInterface}};
}

}  // namespace

int CSMTP::RegisterDefaults() {
    const bool opened = TrelisInit2() == 0;
    const int done = trelis::Register(Proxy());
    constexpr trelis::Key kName{trelis::kInterfaceKey, "Name"};
    if (done == 1)
        TrelisSetValue(kLocalStore, kName.Path({kInterface}).c_str(),
                       ResourceText(kInterfaceNameString).c_str());
    if (opened) TrelisUninit();
    return done;
}

int CSMTP::UnregisterDefaults() { return trelis::Unregister(Proxy()); }
