// The database's side of services: handles, records, the database lock.
#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "platform/file.h"
#include "platform/home.h"
#include "platform/linux/fail.h"
#include "platform/linux/service/handle.h"
#include "platform/linux/service/record.h"

using platform::ServiceRecord;

namespace {

SC_HANDLE NewHandle(const char* service) {
    auto* handle = new (std::nothrow) ServiceHandleRecord{service};
    return handle != nullptr ? handle : platform::Fail(ERROR_NOT_ENOUGH_MEMORY);
}

bool IsManager(SC_HANDLE handle) {
    if (handle != nullptr && handle->service.empty()) return true;
    return platform::Fail(ERROR_INVALID_HANDLE);
}

std::string LockFile() { return platform::HomePath("services/database.lock"); }

std::string UserName() {
    const passwd* entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

}  // namespace

bool platform::IsService(SC_HANDLE handle) {
    if (handle != nullptr && !handle->service.empty()) return true;
    return platform::Fail(ERROR_INVALID_HANDLE);
}

SC_HANDLE OpenSCManagerA(LPCSTR, LPCSTR, DWORD) {
    if (!platform::Home().empty()) return NewHandle("");
    return platform::Fail(ERROR_ACCESS_DENIED);
}

SC_HANDLE CreateServiceA(SC_HANDLE manager, LPCSTR name, LPCSTR displayName, DWORD, DWORD type,
                         DWORD startType, DWORD errorControl, LPCSTR path, LPCSTR, DWORD*,
                         LPCSTR dependencies, LPCSTR, LPCSTR) {
    if (!IsManager(manager)) return nullptr;
    if (!platform::ValidServiceName(name) || path == nullptr)
        return platform::Fail(ERROR_INVALID_NAME);
    ServiceRecord record;
    record.name = name;
    record.displayName = displayName != nullptr ? displayName : name;
    record.path = path;
    record.type = type;
    record.startType = startType;
    record.errorControl = errorControl;
    for (const char* each = dependencies; each != nullptr && *each != '\0';
         each += std::strlen(each) + 1)
        record.dependencies.emplace_back(each);
    return platform::WriteServiceRecord(record, true) ? NewHandle(name) : nullptr;
}

SC_HANDLE OpenServiceA(SC_HANDLE manager, LPCSTR name, DWORD) {
    if (!IsManager(manager)) return nullptr;
    if (!platform::ValidServiceName(name)) return platform::Fail(ERROR_INVALID_NAME);
    if (platform::ReadServiceRecord(name)) return NewHandle(name);
    return platform::Fail(ERROR_SERVICE_DOES_NOT_EXIST);
}

BOOL DeleteService(SC_HANDLE service) {
    if (!platform::IsService(service)) return FALSE;
    if (unlink(platform::ServiceFile(service->service, ".conf").c_str()) != 0)
        return platform::Fail(errno == ENOENT ? ERROR_SERVICE_DOES_NOT_EXIST : ERROR_ACCESS_DENIED);
    // A service that still runs keeps its other files until its supervisor ends.
    if (platform::ConnectSupervisor(service->service)) return TRUE;
    for (const char* suffix : {".status", ".out", ".sock", ".run"})
        unlink(platform::ServiceFile(service->service, suffix).c_str());
    return TRUE;
}

BOOL CloseServiceHandle(SC_HANDLE handle) {
    if (handle == nullptr) return platform::Fail(ERROR_INVALID_HANDLE);
    delete handle;
    return TRUE;
}

SC_LOCK LockServiceDatabase(SC_HANDLE manager) {
    if (!IsManager(manager)) return nullptr;
    auto lock = std::make_unique<platform::File>(
        open(LockFile().c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!*lock) return platform::Fail(ERROR_ACCESS_DENIED);
    if (flock(lock->Descriptor(), LOCK_EX | LOCK_NB) != 0)
        return platform::Fail(ERROR_SERVICE_DATABASE_LOCKED);
    // Who holds it, and since when (the file's time), for those who ask.
    const std::string owner = UserName();
    if (ftruncate(lock->Descriptor(), 0) == 0) lock->Write(owner.data(), owner.size());
    return lock.release();
}

BOOL UnlockServiceDatabase(SC_LOCK lock) {
    const std::unique_ptr<platform::File> file(static_cast<platform::File*>(lock));
    return file != nullptr ? TRUE : FALSE;
}

BOOL QueryServiceLockStatusA(SC_HANDLE manager, QUERY_SERVICE_LOCK_STATUSA* status, DWORD size,
                             DWORD* needed) {
    if (!IsManager(manager)) return FALSE;
    std::string owner;
    platform::ReadWholeFile(LockFile(), owner);
    const auto wanted = static_cast<DWORD>(sizeof *status + owner.size() + 1);
    if (needed != nullptr) *needed = wanted;
    if (status == nullptr || size < wanted) return platform::Fail(ERROR_INSUFFICIENT_BUFFER);
    const platform::File file = platform::File::OpenRead(LockFile().c_str());
    const bool locked = file && flock(file.Descriptor(), LOCK_SH | LOCK_NB) != 0;
    struct stat info {};
    if (locked) fstat(file.Descriptor(), &info);
    status->fIsLocked = locked ? 1 : 0;
    status->dwLockDuration =
        locked ? static_cast<DWORD>(std::max<std::time_t>(std::time(nullptr) - info.st_mtime, 0))
               : 0;
    status->lpLockOwner = reinterpret_cast<char*>(status + 1);
    std::memcpy(status->lpLockOwner, owner.c_str(), owner.size() + 1);
    return TRUE;
}

BOOL ChangeServiceConfig2A(SC_HANDLE service, DWORD level, LPVOID info) {
    if (!platform::IsService(service)) return FALSE;
    auto record = platform::ReadServiceRecord(service->service);
    if (!record || info == nullptr)
        return platform::Fail(info == nullptr ? ERROR_INVALID_PARAMETER
                                              : ERROR_SERVICE_DOES_NOT_EXIST);
    if (level == SERVICE_CONFIG_DESCRIPTION) {
        const char* text = static_cast<const SERVICE_DESCRIPTIONA*>(info)->lpDescription;
        record->description = text != nullptr ? text : "";
    } else if (level == SERVICE_CONFIG_FAILURE_ACTIONS) {
        const auto& actions = *static_cast<const SERVICE_FAILURE_ACTIONSA*>(info);
        record->restart = false;
        for (DWORD i = 0; i < actions.cActions; ++i) {
            record->restart = actions.lpsaActions[i].Type == SC_ACTION_RESTART;
            record->restartDelay = actions.lpsaActions[i].Delay;
        }
    } else {
        return platform::Fail(ERROR_INVALID_PARAMETER);
    }
    return platform::WriteServiceRecord(*record, false) ? TRUE : FALSE;
}
