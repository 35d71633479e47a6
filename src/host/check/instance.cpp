// The instance's directories, and who may see its files, by the operations of the C++ library.
#include <algorithm>
#include <filesystem>
#include <string_view>

#include "host/check/parts.h"
#include "platform/file.h"
#include "platform/home.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kLittle = 200U << 20U;  // bytes: a few large messages at a time
constexpr std::uintmax_t kNothing = 20U << 20U;
constexpr const char* kFolders[] = {"pipes",    "tmp",       "services",   "registry", "log",
                                    "tmp/VTNP", "tmp/spare", "quarantine", "metrics"};
// The configuration with hashes of passwords, who has written to whom, and what opens the page.
// SQLite has files of these names with something behind them.
constexpr std::string_view kGuarded[] = {"store.db", "stats.db", "report.token"};

void CheckFolder(const std::string& path, Findings& findings) {
    std::error_code error;
    const fs::file_status status = fs::symlink_status(path, error);
    if (status.type() == fs::file_type::not_found) return;  // made by who needs it
    if (status.type() != fs::file_type::directory) {
        findings.Error(path, "it is no directory", "remove it: the programs make it anew");
        return;
    }
    // What others may see of the instance's own directory is names; to write there they may not,
    // or there would be no instance.
    constexpr fs::perms kForeign = fs::perms::group_write | fs::perms::others_all;
    if (path != platform::Home() && (status.permissions() & kForeign) != fs::perms::none)
        findings.Error(path, "other users may write or look into it", "chmod go-w,o-rx " + path);
    if (!platform::MayMakeFiles(path.c_str()))
        findings.Error(path, "no files can be made in it",
                       "give it to the instance's user: see chown, and whether the file system is "
                       "read-only");
}

void CheckFiles(Findings& findings) {
    constexpr fs::perms kForeign =
        fs::perms::group_write | fs::perms::others_read | fs::perms::others_write;
    std::error_code error;
    for (fs::directory_iterator each(platform::Home(), error), end; !error && each != end;
         each.increment(error)) {
        const std::string name = each->path().filename().string();
        const bool guarded =
            std::any_of(std::begin(kGuarded), std::end(kGuarded),
                        [&name](std::string_view start) { return name.starts_with(start); });
        std::error_code gone;
        const fs::file_status status = each->symlink_status(gone);
        if (!guarded || gone || status.type() != fs::file_type::regular) continue;
        if ((status.permissions() & kForeign) != fs::perms::none)
            findings.Error(each->path().string(), "other users may read it or write to it",
                           "chmod g-w,o= " + each->path().string());
    }
}

}  // namespace

void CheckInstanceDirectories(Findings& findings) {
    if (platform::Home().empty()) {
        findings.Error("VANTREL_HOME", platform::HomeError(),
                       "see who owns the directory, and who may write to it");
        return;
    }
    CheckFolder(platform::Home(), findings);
    for (const char* folder : kFolders) CheckFolder(platform::HomePath(folder), findings);
    CheckFiles(findings);
    std::error_code error;
    const std::string spool = platform::HomePath("tmp");
    const fs::space_info space = fs::space(spool, error);
    if (error || space.available >= kLittle) return;
    const std::string left = std::to_string(space.available >> 20U) + " MB are left for mail";
    const char* const remedy = "make room on its file system, or put the instance on another one";
    if (space.available < kNothing)
        findings.Error(spool, left, remedy);
    else
        findings.Warn(spool, left, remedy);
}
