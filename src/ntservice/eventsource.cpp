// The program as a source of the system's event log.
#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "ntservice/messages.h"
#include "ntservice/ntservice.h"
#include "platform/sync.h"

namespace {

constexpr char kApplicationLog[] = "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";
constexpr char kSources[] = "Sources";

RegistryKeyHandle OpenApplicationLog() {
    HKEY key = nullptr;
    RegOpenKeyExA(HKEY_LOCAL_MACHINE, kApplicationLog, 0, KEY_ALL_ACCESS, &key);
    return RegistryKeyHandle(key);
}

// The list of sources, stored as texts, each with its zero byte, and one more at the end. Nothing
// if it can't be read.
std::optional<std::vector<std::string>> ReadSources(const RegistryKeyHandle& log, DWORD& type) {
    DWORD size = 0;
    if (log == nullptr ||
        RegQueryValueExA(log.get(), kSources, nullptr, &type, nullptr, &size) != 0 || size == 0)
        return std::nullopt;
    std::vector<char> list(size);
    if (RegQueryValueExA(log.get(), kSources, nullptr, &type, reinterpret_cast<BYTE*>(list.data()),
                         &size) != 0)
        return std::nullopt;
    list.resize(size);
    std::vector<std::string> names;
    for (auto at = list.begin(); at != list.end() && *at != '\0';) {
        const auto end = std::find(at, list.end(), '\0');
        names.emplace_back(at, end);
        at = end == list.end() ? end : end + 1;
    }
    return names;
}

void WriteSources(const RegistryKeyHandle& log, DWORD type, const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names) list.append(name).push_back('\0');
    list.push_back('\0');
    RegSetValueExA(log.get(), kSources, 0, type, reinterpret_cast<const BYTE*>(list.data()),
                   static_cast<DWORD>(list.size()));
}

}  // namespace

void CNTService::InstallEventSource(const char* messageFile, unsigned types) {
    HKEY made = nullptr;
    if (RegCreateKeyA(HKEY_LOCAL_MACHINE, (kApplicationLog + serviceName).c_str(), &made) == 0) {
        const RegistryKeyHandle source(made);
        const DWORD number = types;
        RegSetValueExA(made, "EventMessageFile", 0, REG_EXPAND_SZ,
                       reinterpret_cast<const BYTE*>(messageFile),
                       static_cast<DWORD>(std::strlen(messageFile) + 1));
        RegSetValueExA(made, "TypesSupported", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number),
                       sizeof number);
    }
    DWORD type = REG_MULTI_SZ;
    const RegistryKeyHandle log = OpenApplicationLog();
    auto names = ReadSources(log, type);
    if (!names || std::find(names->begin(), names->end(), serviceName) != names->end()) return;
    names->push_back(serviceName);
    WriteSources(log, type, *names);
}

void CNTService::RemoveEventSource() {
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, (kApplicationLog + serviceName).c_str());
    DWORD type = REG_MULTI_SZ;
    const RegistryKeyHandle log = OpenApplicationLog();
    auto names = ReadSources(log, type);
    if (names && std::erase(*names, serviceName) > 0) WriteSources(log, type, *names);
}

void CNTService::LogEvent(const char* text, int type, unsigned eventId) {
    lastError_ = GetLastError();
    WriteEvent(serviceName.c_str(), text, type, eventId);
}

void CNTService::WriteEvent(const char* source, const char* text, int type, unsigned eventId) {
    if (eventId == static_cast<unsigned>(-1)) {
        eventId = type == EVENTLOG_ERROR_TYPE     ? 0xC0000002
                  : type == EVENTLOG_WARNING_TYPE ? 0x80000001
                                                  : 0x40000000;
    }
    HANDLE log = RegisterEventSourceA(nullptr, source);
    if (log == nullptr) return;
    const char* texts[] = {text};
    ReportEventA(log, static_cast<WORD>(type), 0, eventId,
                 userIdentity_.empty() ? nullptr : userIdentity_.data(), 1, 0, texts, nullptr);
    DeregisterEventSource(log);
}
