// The keys that the options register and unregister write and delete: the proxy's own, those of its
// filters, and one interface to begin with. Results of the store are not looked at: both options
// succeed without one.
#include <string>

#include "host/smtp.h"
#include "platform/file.h"
#include "platform/resource.h"
#include "trelis/trelis.h"

namespace {

constexpr DWORD kPathSize = 512;
constexpr int kResponseTimeout = 45;  // seconds
constexpr char kVersion[] = "2, 0, 67, 0";
constexpr char kDenyMessage[] = "550 5.7.1 Message Rejected";
constexpr char kInterface[] = "net";
constexpr UINT kDisplayNameString = 120;
constexpr UINT kInterfaceNameString = 4800;

struct DefaultKey {
    const char* key;
    const char* value;
};

// An empty value makes the key, as a parent for its later children.
constexpr DefaultKey kFilterKeys[] = {
    {"/VTWIN/Filters/AS/AllowDenyIPList/Enabled", "Y"},
    {"/VTWIN/Filters/AS/AllowDenyIPList/Addresses", ""},
    {"/VTWIN/Filters/AS/SenderBlackList/Enabled", "Y"},
    {"/VTWIN/Filters/AS/SenderBlackList/WildcardsList", ""},
    {"/VTWIN/Filters/AS/SenderBlackList/UsersList", ""},
    {"/VTWIN/Filters/AS/SenderBlackList/EnabledSendDenyMessage", "Y"},
    {"/VTWIN/Filters/AS/SenderBlackList/EnabledDropConnection", "Y"},
    {"/VTWIN/Filters/AS/SenderBlackList/DenyMessage", kDenyMessage},
    {"/VTWIN/Filters/AS/DirectoryHarvesting/Enabled", "Y"},
    {"/VTWIN/Filters/AS/DirectoryHarvesting/EnabledSendDenyMessage", "Y"},
    {"/VTWIN/Filters/AS/DirectoryHarvesting/DenyMessage", kDenyMessage},
};
constexpr char kResponseTimeoutKey[] = "/VTWIN/Filters/AS/DirectoryHarvesting/ResponseTimeout";

constexpr char kPathKey[] = "/VTWIN/Agents/VTSMTPProxy/Path";
constexpr char kNameKey[] = "/VTWIN/Versions/VTSMTPProxy/Name";
constexpr char kVersionKey[] = "/VTWIN/Versions/VTSMTPProxy/Version";
constexpr char kActiveKey[] = "/VTWIN/Agents/VTSMTPProxy/RTP/Active";
constexpr char kInterfacesKey[] = "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces";

// No IPAddress: it listens on all addresses.
constexpr DefaultKey kInterfaceKeys[] = {
    {"GreetingDomainName", "127.0.0.1"},
    {"MaxThreads", "50"},
    {"TimeoutBetweenNOOPs", "180"},
    {"ConnectionTimeout", "600"},
    {"ServerToForward", "127.0.0.1:10025"},
    {"Port", "25"},
    {"RelayNetworks", ""},
    {"MailDomains", ""},
};

constexpr const char* kFilterRoots[] = {
    "/VTWIN/Filters/AS/AllowDenyIPList",
    "/VTWIN/Filters/AS/SenderBlackList",
    "/VTWIN/Filters/AS/DirectoryHarvesting",
};
constexpr const char* kOwnRoots[] = {
    "/VTWIN/Agents/VTSMTPProxy",
    "/VTWIN/Versions/VTSMTPProxy",
};

void Write(const std::string& key, const std::string& value) {
    TrelisSetValue(kLocalStore, key.c_str(), value.c_str());
}

std::string ResourceText(UINT number) {
    char text[256];
    LoadStringA(nullptr, number, text, sizeof text);
    return text;
}

void WriteFilterKeys() {
    if (TrelisInit2() < 0) return;
    for (const DefaultKey& each : kFilterKeys) Write(each.key, each.value);
    Write(kResponseTimeoutKey, std::to_string(kResponseTimeout));
    TrelisUninit();
}

void WriteInterfaceKeys() {
    const std::string root = std::string(kInterfacesKey) + '/' + kInterface + '/';
    Write(root + "Name", ResourceText(kInterfaceNameString));
    for (const DefaultKey& each : kInterfaceKeys) Write(root + each.key, each.value);
}

template <std::size_t Count>
void Delete(const char* const (&keys)[Count]) {
    for (const char* key : keys) TrelisDelKey(kLocalStore, key);
}

}  // namespace

int CSMTP::RegisterDefaults() {
    char path[kPathSize];
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    if (length == 0 || length >= sizeof path) return 0;
    const bool opened = TrelisInit2() == 0;
    Write(kPathKey, path);
    WriteFilterKeys();
    Write(kNameKey, ResourceText(kDisplayNameString));
    Write(kVersionKey, kVersion);
    Write(kActiveKey, "Y");
    WriteInterfaceKeys();
    if (opened) TrelisUninit();
    return 1;
}

int CSMTP::UnregisterDefaults() {
    if (TrelisInit2() == 0) {
        Delete(kFilterRoots);
        TrelisUninit();
    }
    const bool opened = TrelisInit2() == 0;
    Delete(kOwnRoots);
    if (opened) TrelisUninit();
    return 1;
}
