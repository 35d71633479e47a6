#include "platform/commandline.h"

#include <fstream>
#include <mutex>

namespace platform {
namespace {

std::mutex g_mutex;

std::vector<std::string>& Replacement() {
    static auto& arguments = *new std::vector<std::string>;  // guarded by g_mutex
    return arguments;
}

}  // namespace

std::vector<std::string> CommandLineArguments() {
    {
        const std::lock_guard lock(g_mutex);
        if (!Replacement().empty()) return Replacement();
    }
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    std::vector<std::string> arguments;
    for (std::string argument; std::getline(file, argument, '\0');) arguments.push_back(argument);
    return arguments;
}

void SetCommandLineArguments(std::vector<std::string> arguments) {
    const std::lock_guard lock(g_mutex);
    Replacement() = std::move(arguments);
}

}  // namespace platform
