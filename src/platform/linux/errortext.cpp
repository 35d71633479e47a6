#include "platform/errortext.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

namespace {

struct ErrorText {
    DWORD error;
    std::string_view text;
};

constexpr ErrorText kTexts[] = {
    {ERROR_FILE_NOT_FOUND, "The system cannot find the file specified."},
    {ERROR_PATH_NOT_FOUND, "The system cannot find the path specified."},
    {ERROR_TOO_MANY_OPEN_FILES, "The system cannot open the file."},
    {ERROR_ACCESS_DENIED, "Access is denied."},
    {ERROR_INVALID_HANDLE, "The handle is invalid."},
    {ERROR_NOT_ENOUGH_MEMORY, "Not enough memory resources are available to process this command."},
    {ERROR_WRITE_PROTECT, "The media is write protected."},
    {ERROR_GEN_FAILURE, "A device attached to the system is not functioning."},
    {ERROR_INVALID_PARAMETER, "The parameter is incorrect."},
    {ERROR_BROKEN_PIPE, "The pipe has been ended."},
    {ERROR_DISK_FULL, "There is not enough space on the disk."},
    {ERROR_INSUFFICIENT_BUFFER, "The data area passed to a system call is too small."},
    {ERROR_INVALID_NAME, "The filename, directory name, or volume label syntax is incorrect."},
    {ERROR_PIPE_BUSY, "All pipe instances are busy."},
    {ERROR_INVALID_SERVICE_CONTROL, "The requested control is not valid for this service."},
    {ERROR_SERVICE_REQUEST_TIMEOUT,
     "The service did not respond to the start or control request in a timely fashion."},
    {ERROR_SERVICE_DATABASE_LOCKED, "The service database is locked."},
    {ERROR_SERVICE_ALREADY_RUNNING, "An instance of the service is already running."},
    {ERROR_CIRCULAR_DEPENDENCY, "Circular service dependency was specified."},
    {ERROR_SERVICE_DOES_NOT_EXIST, "The specified service does not exist as an installed service."},
    {ERROR_SERVICE_CANNOT_ACCEPT_CTRL, "The service cannot accept control messages at this time."},
    {ERROR_SERVICE_NOT_ACTIVE, "The service has not been started."},
    {ERROR_FAILED_SERVICE_CONTROLLER_CONNECT,
     "The service process could not connect to the service controller."},
    {ERROR_SERVICE_SPECIFIC_ERROR, "The service has returned a service-specific error code."},
    {ERROR_PROCESS_ABORTED, "The process terminated unexpectedly."},
    {ERROR_SERVICE_DEPENDENCY_FAIL, "The dependency service or group failed to start."},
    {ERROR_SERVICE_EXISTS, "The specified service already exists."},
    {ERROR_SERVICE_DEPENDENCY_DELETED,
     "The dependency service does not exist or has been marked for deletion."},
    {ERROR_SERVICE_NEVER_STARTED,
     "No attempts to start the service have been made since the last boot."},
};

}  // namespace

DWORD FormatMessageA(DWORD flags, LPCVOID, DWORD message, DWORD, LPSTR buffer, DWORD size, void*) {
    const auto* found = std::find_if(std::begin(kTexts), std::end(kTexts),
                                     [message](const ErrorText& e) { return e.error == message; });
    if (found == std::end(kTexts)) return 0;
    const std::string text = std::string(found->text) + "\r\n";
    char* target = buffer;
    if ((flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
        target = static_cast<char*>(std::malloc(text.size() + 1));
        std::memcpy(buffer, &target, sizeof target);
    } else if (size <= text.size()) {
        return 0;
    }
    if (target == nullptr) return 0;
    std::memcpy(target, text.c_str(), text.size() + 1);
    return static_cast<DWORD>(text.size());
}

void* LocalFree(void* block) {
    std::free(block);
    return nullptr;
}
