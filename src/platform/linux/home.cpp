#include "platform/home.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/account.h"

namespace platform {
namespace {

struct HomeState {
    std::string path;
    std::string error;
};

bool MakeDirectories(const std::string& path) {
    for (std::size_t at = 1; at != std::string::npos;) {
        at = path.find('/', at);
        const std::string part = path.substr(0, at);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
        if (at != std::string::npos) ++at;
    }
    return true;
}

std::string ChoosePath() {
    if (const char* set = std::getenv("VANTREL_HOME"); set != nullptr && *set != '\0') return set;
    if (geteuid() == 0) return "/var/lib/vantrel";
    if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state == '/')
        return std::string(state) + "/vantrel";
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home != '/') {
        const passwd* entry = getpwuid(geteuid());
        home = entry != nullptr ? entry->pw_dir : "";
    }
    return std::string(home) + "/.local/state/vantrel";
}

// What root does in another user's instance is done as that user: files of root's in it would lock
// the instance's own programs out. Of root's powers one is kept, that of serving a low port.
bool BecomeOwner(uid_t user, gid_t group) {
    PersonName();  // while it is to be seen; it remembers
    const passwd* entry = getpwuid(user);
    const bool groups = entry != nullptr ? initgroups(entry->pw_name, entry->pw_gid) == 0
                                         : setgroups(0, nullptr) == 0;
    if (!groups || setgid(entry != nullptr ? entry->pw_gid : group) != 0 ||
        prctl(PR_SET_KEEPCAPS, 1) != 0 || setuid(user) != 0)
        return false;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
    data[0].effective = data[0].permitted = data[0].inheritable = 1U << CAP_NET_BIND_SERVICE;
    if (syscall(SYS_capset, &header, data) != 0) return false;
    // The programs that it starts as services keep it too.
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_NET_BIND_SERVICE, 0, 0);
    prctl(PR_SET_DUMPABLE, 1);
    return true;
}

std::string FullPath() {
    std::string path = ChoosePath();
    if (!path.empty() && path.front() != '/') {
        char* absolute = realpath(".", nullptr);
        path = std::string(absolute != nullptr ? absolute : "") + "/" + path;
        std::free(absolute);
    }
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

HomeState Prepare() {
    std::string path = FullPath();
    if (!MakeDirectories(path)) return {"", path + ": " + std::strerror(errno)};
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return {"", path + ": " + std::strerror(errno)};
    if (!S_ISDIR(info.st_mode))
        return {"", path + ": not a directory: set VANTREL_HOME to the instance's"};
    // Whoever can write here could put a socket or a spool file of their own in the place of ours.
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return {"", path + ": refused, other users can write to it: chmod go-w it"};
    const bool foreign = info.st_uid != geteuid();
    if (foreign && (geteuid() != 0 || !BecomeOwner(info.st_uid, info.st_gid)))
        return {
            "",
            path + ": refused, owned by another user: be that user or root, or set VANTREL_HOME"};
    for (const char* folder : {"pipes", "tmp", "services", "registry"}) {
        const std::string below = path + "/" + folder;
        if (mkdir(below.c_str(), 0700) != 0 && errno != EEXIST)
            return {"", below + ": " + std::strerror(errno)};
    }
    return {path, ""};
}

const HomeState& State() {
    static const HomeState& state = *new HomeState(Prepare());
    return state;
}

}  // namespace

const std::string& Home() { return State().path; }
std::string MissingHome() {
    const std::string path = FullPath();
    return access(path.c_str(), F_OK) != 0 && errno == ENOENT ? path : std::string();
}
const std::string& HomeError() { return State().error; }
std::string WhyNoHome() {
    const std::string missing = MissingHome();
    return missing.empty() ? HomeError()
                           : missing +
                                 ": there is no such instance: set VANTREL_HOME, or write a "
                                 "configuration with vtsmtpproxy setup";
}

std::string HomePath(const char* relative) {
    return Home().empty() ? std::string() : Home() + "/" + relative;
}

}  // namespace platform
