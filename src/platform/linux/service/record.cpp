#include "platform/linux/service/record.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string_view>

#include "platform/file.h"
#include "platform/home.h"
#include "platform/linux/fail.h"

namespace platform {
namespace {

constexpr std::size_t kLongestName = 64;

std::string Encode(const std::string& text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string coded;
    for (const char c : text) {
        if (c != '%' && c != '\n' && c != '\r') {
            coded += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        coded += {'%', kHex[byte >> 4], kHex[byte & 15]};
    }
    return coded;
}

std::string Decode(std::string_view coded) {
    std::string text;
    for (std::size_t i = 0; i < coded.size(); ++i) {
        if (coded[i] != '%' || i + 2 >= coded.size()) {
            text += coded[i];
            continue;
        }
        text += static_cast<char>(
            std::strtol(std::string(coded.substr(i + 1, 2)).c_str(), nullptr, 16));
        i += 2;
    }
    return text;
}

// Calls use(key, value) for each line of "key value".
void ForEachLine(std::string_view text,
                 const std::function<void(std::string_view key, const std::string& value)>& use) {
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::size_t blank = std::min(line.find(' '), line.size());
        use(line.substr(0, blank), Decode(line.substr(std::min(blank + 1, line.size()))));
    }
}

DWORD Number(const std::string& text) {
    return static_cast<DWORD>(std::strtoul(text.c_str(), nullptr, 10));
}

const char* StateName(DWORD state) {
    static constexpr const char* kNames[] = {"unknown",       "stopped", "start-pending",
                                             "stop-pending",  "running", "continue-pending",
                                             "pause-pending", "paused"};
    return kNames[state < std::size(kNames) ? state : 0];
}

}  // namespace

bool ValidServiceName(const char* name) {
    if (name == nullptr) return false;
    const std::string_view text(name);
    return !text.empty() && text.size() <= kLongestName &&
           text.find_first_not_of(
               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
               "-_") == std::string_view::npos;
}

std::string ServiceFile(const std::string& name, const char* suffix) {
    return HomePath("services/") + name + suffix;
}

std::optional<ServiceRecord> ReadServiceRecord(const std::string& name) {
    std::string text;
    if (!ReadWholeFile(ServiceFile(name, ".conf"), text)) return std::nullopt;
    ServiceRecord record;
    record.name = name;
    ForEachLine(text, [&record](std::string_view key, const std::string& value) {
        if (key == "display-name") record.displayName = value;
        if (key == "description") record.description = value;
        if (key == "path") record.path = value;
        if (key == "depends-on") record.dependencies.push_back(value);
        if (key == "type") record.type = Number(value);
        if (key == "start-type") record.startType = Number(value);
        if (key == "error-control") record.errorControl = Number(value);
        if (key == "restart-delay") {
            record.restart = true;
            record.restartDelay = Number(value);
        }
    });
    return record;
}

bool WriteServiceRecord(const ServiceRecord& record, bool onlyNew) {
    std::string text = "display-name " + Encode(record.displayName) + "\ndescription " +
                       Encode(record.description) + "\npath " + Encode(record.path) + "\ntype " +
                       std::to_string(record.type) + "\nstart-type " +
                       std::to_string(record.startType) + "\nerror-control " +
                       std::to_string(record.errorControl) + '\n';
    for (const std::string& each : record.dependencies) text += "depends-on " + each + '\n';
    if (record.restart) text += "restart-delay " + std::to_string(record.restartDelay) + '\n';
    if (PutFile(ServiceFile(record.name, ".conf"), text, onlyNew)) return true;
    switch (errno) {
        case EEXIST:
            return platform::Fail(ERROR_SERVICE_EXISTS);
        case EACCES:
            return platform::Fail(ERROR_ACCESS_DENIED);
        case ENOSPC:
        case EDQUOT:
            return platform::Fail(ERROR_DISK_FULL);
        case EROFS:
            return platform::Fail(ERROR_WRITE_PROTECT);
        default:
            return platform::Fail(ERROR_GEN_FAILURE);
    }
}

bool SendServiceMessage(int socket, const ServiceMessage& message) {
    return send(socket, &message, sizeof message, MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(sizeof message);
}

bool ReceiveServiceMessage(int socket, ServiceMessage& message) {
    const ssize_t count = recv(socket, &message, sizeof message, MSG_DONTWAIT);
    if (count == static_cast<ssize_t>(sizeof message)) return true;
    if (count >= 0) errno = EPIPE;
    return false;
}

SERVICE_STATUS ReadStoppedStatus(const std::string& name) {
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = SERVICE_STOPPED;
    status.dwWin32ExitCode = ERROR_SERVICE_NEVER_STARTED;
    std::string text;
    if (!ReadWholeFile(ServiceFile(name, ".status"), text)) return status;
    status.dwWin32ExitCode = ERROR_PROCESS_ABORTED;  // unless the supervisor saw it stop
    bool stopped = false;
    DWORD exitCode = 0;
    ForEachLine(text, [&](std::string_view key, const std::string& value) {
        if (key == "state") stopped = value == StateName(SERVICE_STOPPED);
        if (key == "exit-code") exitCode = Number(value);
        if (key == "specific-exit-code") status.dwServiceSpecificExitCode = Number(value);
    });
    if (stopped) status.dwWin32ExitCode = exitCode;
    return status;
}

void WriteStatusFile(const std::string& name, const SERVICE_STATUS& status, int process) {
    // For people first; a status that can't be written down is not worth stopping for.
    const std::string text = std::string("state ") + StateName(status.dwCurrentState) +
                             "\nprocess " + std::to_string(process) + "\nexit-code " +
                             std::to_string(status.dwWin32ExitCode) + "\nspecific-exit-code " +
                             std::to_string(status.dwServiceSpecificExitCode) + "\ncheck-point " +
                             std::to_string(status.dwCheckPoint) + "\nwait-hint " +
                             std::to_string(status.dwWaitHint) + '\n';
    PutFile(ServiceFile(name, ".status"), text, false);
}

}  // namespace platform
