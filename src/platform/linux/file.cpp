#include "platform/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include "platform/home.h"
#include "platform/linux/fail.h"

DWORD GetTempPathA(DWORD size, LPSTR buffer) {
    const std::string path = platform::HomePath("tmp/");
    if (path.empty() || path.size() >= size) return 0;
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    return static_cast<DWORD>(path.size());
}

BOOL CreateDirectoryA(LPCSTR path, LPSECURITY_ATTRIBUTES) {
    if (mkdir(path, 0700) == 0) return TRUE;
    return platform::Fail(errno == EEXIST ? ERROR_ALREADY_EXISTS : ERROR_PATH_NOT_FOUND);
}

BOOL DeleteFileA(LPCSTR path) {
    if (unlink(path) == 0) return TRUE;
    return platform::Fail(errno == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED);
}

DWORD GetModuleFileNameA(HANDLE, LPSTR buffer, DWORD size) {
    if (size == 0) return 0;
    const ssize_t length = readlink("/proc/self/exe", buffer, size);
    if (length <= 0) return 0;
    const auto count = static_cast<DWORD>(length);
    buffer[count < size ? count : size - 1] = '\0';
    return count;
}

namespace platform {
namespace {

FileState StateOf(const struct stat& info) {
    constexpr std::int64_t kSecond = 1'000'000'000;
    return {S_ISREG(info.st_mode),
            static_cast<std::uint64_t>(info.st_size),
            info.st_mtim.tv_sec * kSecond + info.st_mtim.tv_nsec,
            info.st_ino,
            info.st_ctim.tv_sec * kSecond + info.st_ctim.tv_nsec,
            info.st_nlink};
}

}  // namespace

File File::CreateExclusive(const char* path, int group) {
    const int descriptor = open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor >= 0 && group >= 0 &&
        fchown(descriptor, static_cast<uid_t>(-1), static_cast<gid_t>(group)) == 0)
        fchmod(descriptor, 0640);
    return {descriptor, true};
}

File File::OpenAppend(const char* path) {
    return {open(path, O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK), true};
}

File File::OpenRead(const char* path) {
    // Who opens a pipe would wait for somebody who writes to it.
    return File(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
}

long long File::Size() const {
    struct stat info {};
    const bool plain = fstat(Descriptor(), &info) == 0 && S_ISREG(info.st_mode);
    return plain ? static_cast<long long>(info.st_size) : -1;
}

std::optional<FileState> File::State() const {
    struct stat info {};
    if (fstat(Descriptor(), &info) != 0) return std::nullopt;
    return StateOf(info);
}

bool File::Write(const void* data, std::size_t length) {
    const char* at = static_cast<const char*>(data);
    if (atEnd_ && !SetAppending(true)) return false;
    while (length > 0) {
        const ssize_t done = write(Descriptor(), at, length);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        at += done;
        length -= static_cast<std::size_t>(done);
    }
    return true;
}

bool File::Replace(std::string_view bytes) {
    if (!SetAppending(false)) return false;
    for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t done =
            pwrite(Descriptor(), bytes.data() + at, bytes.size() - at, static_cast<off_t>(at));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        at += static_cast<std::size_t>(done);
    }
    const auto size = static_cast<long long>(bytes.size());
    const long long found = Size();
    return found == size || (found > size && ftruncate(Descriptor(), size) == 0);
}

bool File::SetAppending(bool appending) {
    if (appending_ == appending) return true;
    if (fcntl(Descriptor(), F_SETFL, appending ? O_APPEND : 0) != 0) return false;
    appending_ = appending;
    return true;
}

long long File::Read(void* buffer, std::size_t length) {
    ssize_t done = 0;
    do {
        done = read(Descriptor(), buffer, length);
    } while (done < 0 && errno == EINTR);
    return done;
}

long long File::ReadAt(long long offset, void* buffer, std::size_t length) const {
    ssize_t done = 0;
    do {
        done = pread(Descriptor(), buffer, length, offset);
    } while (done < 0 && errno == EINTR);
    return done;
}

bool File::BeginsWith(std::string_view bytes) const {
    const auto found = std::make_unique_for_overwrite<char[]>(bytes.size());
    for (std::size_t have = 0; have < bytes.size();) {
        const long long count =
            ReadAt(static_cast<long long>(have), found.get() + have, bytes.size() - have);
        if (count <= 0) return false;
        have += static_cast<std::size_t>(count);
    }
    return std::memcmp(found.get(), bytes.data(), bytes.size()) == 0;
}

bool File::MakeEmpty() { return ftruncate(Descriptor(), 0) == 0; }

std::optional<FileState> File::OnlyOurs(const char* name) const {
    struct stat info {};
    struct stat named {};
    if (fstat(Descriptor(), &info) != 0 || info.st_nlink != 1 || stat(name, &named) != 0 ||
        named.st_ino != info.st_ino || named.st_dev != info.st_dev)
        return std::nullopt;
    // The system gives such a lease only where there is no other descriptor of the file. It tells
    // of one that comes while the lease lasts by a signal, which would end the process.
    static const bool deaf = signal(SIGIO, SIG_IGN) != SIG_ERR;
    if (!deaf || fcntl(Descriptor(), F_SETLEASE, F_WRLCK) != 0 ||
        fcntl(Descriptor(), F_SETLEASE, F_UNLCK) != 0)
        return std::nullopt;
    return StateOf(info);
}

bool File::Close() {
    const int descriptor = descriptor_.Release();
    return descriptor < 0 || close(descriptor) == 0;
}

// Each close of a descriptor tells, whichever of them it is.
bool File::Settle() {
    const int copy = fcntl(Descriptor(), F_DUPFD_CLOEXEC, 0);
    return copy >= 0 && close(copy) == 0;
}

std::optional<FileState> LookAtFile(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return std::nullopt;
    return StateOf(info);
}

bool LinkFile(const std::string& path, const std::string& name) {
    return link(path.c_str(), name.c_str()) == 0;
}

bool ReadWholeFile(const std::string& path, std::string& text) {
    constexpr std::size_t kLimit = 1 << 20;
    text.clear();
    File file = File::OpenRead(path.c_str());
    if (!file) return false;
    for (char buffer[4096]; text.size() < kLimit;) {
        const long long count = file.Read(buffer, sizeof buffer);
        if (count < 0) return false;
        if (count == 0) return true;
        text.append(buffer, static_cast<std::size_t>(count));
    }
    return false;
}

bool PutFile(const std::string& path, const std::string& text, bool onlyNew) {
    const std::string fresh = path + ".new" + std::to_string(getpid());
    unlink(fresh.c_str());
    File file = File::CreateExclusive(fresh.c_str(), -1);
    const bool written = file && file.Write(text.data(), text.size()) && file.Close() &&
                         renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, path.c_str(),
                                   onlyNew ? RENAME_NOREPLACE : 0) == 0;
    if (written) return true;
    const int error = errno;
    unlink(fresh.c_str());
    errno = error;
    return false;
}

int GroupNumber(const char* name) {
    const group* entry = name == nullptr || *name == '\0' ? nullptr : getgrnam(name);
    return entry == nullptr ? -1 : static_cast<int>(entry->gr_gid);
}

void ShareDirectory(const char* path, int group) {
    if (group >= 0 && chown(path, static_cast<uid_t>(-1), static_cast<gid_t>(group)) == 0)
        chmod(path, 0750);
}

void RemoveFiles(const std::string& directory, const char* prefix) {
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(directory.c_str()), closedir);
    if (listing == nullptr) return;
    while (const dirent* entry = readdir(listing.get())) {
        if (std::strncmp(entry->d_name, prefix, std::strlen(prefix)) == 0)
            unlinkat(dirfd(listing.get()), entry->d_name, 0);
    }
}

bool MayMakeFiles(const char* directory) { return access(directory, W_OK | X_OK) == 0; }

bool HasSubdirectory(const std::string& directory) {
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(directory.c_str()), closedir);
    if (listing == nullptr) return false;
    while (const dirent* entry = readdir(listing.get())) {
        struct stat info {};
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0 &&
            fstatat(dirfd(listing.get()), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISDIR(info.st_mode))
            return true;
    }
    return false;
}

bool InstanceLock::Take(const char* name) {
    error_ = HomeError();
    if (Home().empty()) return false;
    const std::string path = HomePath("services/") + name + ".lock";
    file_ = File(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file_ && flock(file_.Descriptor(), LOCK_EX | LOCK_NB) == 0) return true;
    error_ = file_ && errno == EWOULDBLOCK ? "already running in this directory"
                                           : path + ": " + std::strerror(errno);
    file_.Close();
    return false;
}

void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace platform
