#include "libstats/reportfile.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <random>

#include "platform/commandline.h"
#include "platform/file.h"

namespace {

constexpr char kSeparators[] = "/\\";
constexpr int kMostNames = 1000;
constexpr int kNumberStep = 1000;
constexpr int kMostNumber = 0x7FFFFFFF / kNumberStep;

std::uint32_t TickCount() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

bool Exists(const char* path) {
    std::error_code error;
    const auto type = std::filesystem::symlink_status(path, error).type();
    return type != std::filesystem::file_type::not_found &&
           type != std::filesystem::file_type::none;
}

}  // namespace

int ProgramDirectory(char* buffer, int size) {
    if (size < 1) return -1;
    try {
        const std::vector<std::string> arguments = platform::CommandLineArguments();
        if (arguments.empty()) return -1;
        const bool second =
            arguments.size() > 1 && arguments[1].find_last_of(kSeparators) != std::string::npos;
        const std::string& chosen = arguments[second ? 1 : 0];
        const std::size_t separator = chosen.find_last_of(kSeparators);
        const std::size_t whole = separator == std::string::npos ? chosen.size() : separator + 1;
        const std::size_t length = std::min(whole, static_cast<std::size_t>(size) - 1);
        std::memcpy(buffer, chosen.data(), length);
        buffer[length] = '\0';
        return 0;
    } catch (const std::exception&) {
        return -1;
    }
}

ReportPath CreateReportFile(const char* directory, const char* extension) {
    ReportPath path(new (std::nothrow) char[kReportPathSize]);
    if (path == nullptr) return nullptr;
    std::minstd_rand source(TickCount());
    std::uniform_int_distribution<int> numbers(0, kMostNumber);
    for (int i = 0; i < kMostNames; ++i) {
        const int length = std::snprintf(path.get(), kReportPathSize, "%sReport_%d.%s", directory,
                                         numbers(source) * kNumberStep, extension);
        if (length < 0 || length >= kReportPathSize) return nullptr;
        platform::File file = platform::File::CreateExclusive(path.get(), -1);
        if (file) return file.Close() ? std::move(path) : nullptr;
        if (!Exists(path.get())) return nullptr;  // not the name, the directory is at fault
    }
    return nullptr;
}
