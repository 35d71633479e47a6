#include <string>

#include "host/smtp.h"
#include "platform/library.h"
#include "trelis/keys/settings.h"

namespace {

constexpr trelis::Key kAppPath{trelis::kCrashKey, "AppPath"};
constexpr char kLibraryName[] = "vtch.dll";
using EnableCrashHandlerFunction = int (*)(const char*, const char*, int, int, int, int);

}  // namespace

int LoadCrashHandler(const char* label) {
    // This reference is kept for the life of the process.
    if (TrelisInit2() != 0) return 0;
    std::string directory = trelis::ReadText(kAppPath);
    const std::size_t end = directory.find_last_of("\\/");
    if (end == std::string::npos) return 0;
    directory.resize(end + 1);
    // From its full path only: never from a directory that happens to be searched.
    HMODULE library = LoadLibraryA((directory + kLibraryName).c_str());
    if (library == nullptr) return 0;
    auto enable =
        reinterpret_cast<EnableCrashHandlerFunction>(GetProcAddress(library, "EnableCrashHandler"));
    if (enable == nullptr) {
        FreeLibrary(library);
        return 0;
    }
    enable(directory.c_str(), label, 2, 0, 0, 0);
    return 1;
}
