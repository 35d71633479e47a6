// The service's program: its start, with its streams and its socket, and what it prints.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "daemons/supervisor/supervision.h"

using platform::UniqueDescriptor;

// What a program prints is kept for a look at what went wrong, not as a log.
constexpr off_t kMostOutput = 1 << 20;

bool Supervision::Launch(Output output) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0)
        return false;
    program_.Reset(ends[0]);
    // Above the descriptors that are set below, so that none of them overwrites it.
    const UniqueDescriptor theirs(fcntl(ends[1], F_DUPFD_CLOEXEC, platform::kServiceSocket + 1));
    close(ends[1]);
    const std::string path = platform::ServiceFile(record_.name, ".out");
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    if (posix_spawn_file_actions_init(&files) != 0) return false;
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    const int emptied = output == Output::kNew ? O_TRUNC : 0;
    posix_spawn_file_actions_addopen(&files, 1, path.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | emptied, 0600);
    posix_spawn_file_actions_adddup2(&files, 1, 2);
    posix_spawn_file_actions_adddup2(&files, theirs.Get(), platform::kServiceSocket);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigmask(&attributes, &none);
    setenv(platform::kServiceSocketVariable, std::to_string(platform::kServiceSocket).c_str(), 1);
    std::string program = record_.path;
    char* arguments[] = {program.data(), nullptr};
    const int error =
        posix_spawn(&process_, program.c_str(), &files, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    greeted_ = false;
    if (error == 0) return true;
    process_ = 0;
    errno = error;
    return false;
}

// The program appends: what it prints next stands at the start again.
void Supervision::CutOutput() {
    const std::string path = platform::ServiceFile(record_.name, ".out");
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && info.st_size > kMostOutput &&
        truncate(path.c_str(), 0) != 0)
        std::perror("vtservice");
}
