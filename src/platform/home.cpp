#include "platform/home.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

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

HomeState Prepare() {
    std::string path = ChoosePath();
    if (!path.empty() && path.front() != '/') {
        char* absolute = realpath(".", nullptr);
        path = std::string(absolute != nullptr ? absolute : "") + "/" + path;
        std::free(absolute);
    }
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (!MakeDirectories(path)) return {"", path + ": " + std::strerror(errno)};
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return {"", path + ": " + std::strerror(errno)};
    if (!S_ISDIR(info.st_mode)) return {"", path + ": not a directory"};
    // Whoever can write here could put a socket or a spool file of their own in the place of ours.
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return {"", path + ": refused, other users can write to it"};
    if (info.st_uid != geteuid() && info.st_uid != 0)
        return {"", path + ": refused, owned by another user"};
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
const std::string& HomeError() { return State().error; }

std::string HomePath(const char* relative) {
    return Home().empty() ? std::string() : Home() + "/" + relative;
}

}  // namespace platform
