#include "host/check/check.h"

#include <cstdio>

#include "host/check/parts.h"
#include "platform/console.h"
#include "platform/file.h"
#include "platform/home.h"
#include "text/usage.h"
#include "trelis/admin.h"

namespace {

constexpr char kHelp[] =
    "usage: vtsmtpproxy check [--json]\n"
    "Looks for mistakes in the configuration, and whether there is what it needs: files, ports, "
    "mail\n"
    "servers, the scanner. The exit code: 0, 1 with warnings, 2 with errors.\n";
constexpr char kStore[] = "store.db";

// The store is not made: a look at an instance leaves it as it was.
bool OpenStore(Findings& findings) {
    const std::string path = platform::HomePath(kStore);
    if (!platform::LookAtFile(path)) {
        findings.Error(path, "there is no configuration", "write one with vtsmtpproxy setup");
        return false;
    }
    if (trelis::InitToRead() == 0) return true;
    findings.Error(path, "the configuration can't be read: " + trelis::WhyNotOpen(),
                   "see who owns the file, and whether it is whole");
    return false;
}

void CheckConfiguration(Findings& findings) {
    CheckKeys(findings);
    CheckLists(findings);
    CheckFilters(findings);
    std::vector<std::string> interfaces;
    trelis::NameWalk names(InterfaceKey("Port"));
    for (std::string name; names.Next(name);) interfaces.push_back(name);
    if (interfaces.empty())
        findings.Error(trelis::kInterfacesKey, "there is no interface, so no mail is taken",
                       "write one with vtsmtpproxy setup");
    for (const std::string& each : interfaces) {
        CheckRelaying(each, findings);
        CheckModes(each, findings);
        CheckCertificates(each, findings);
    }
    CheckPage(interfaces, findings);
    CheckListeners(interfaces, findings);
    for (const std::string& each : interfaces) CheckServers(each, findings);
    CheckScanning(findings);
}

}  // namespace

int CheckInstance(bool json) {
    trelis::ReadQuietly();
    Findings findings;
    if (const std::string missing = platform::MissingHome(); !missing.empty()) {
        findings.Error(missing, "there is no such instance",
                       "set VANTREL_HOME, or write a configuration with vtsmtpproxy setup");
    } else {
        CheckInstanceDirectories(findings);
        if (!platform::Home().empty() && OpenStore(findings)) {
            CheckConfiguration(findings);
            TrelisUninit();
        }
    }
    std::fputs((json ? findings.Json() : findings.Text()).c_str(), stdout);
    return std::fflush(stdout) == 0 ? findings.ExitCode() : kExitUsage;
}

int RunCheck(const std::vector<std::string>& words) {
    const Usage usage{"vtsmtpproxy check", kHelp};
    if (words == std::vector<std::string>{"--help"}) return PrintUsage(usage);
    const bool json = words.size() == 1 && words[0] == "--json";
    if (!words.empty() && !json) return WrongUsage(usage, "unexpected: " + words[0]);
    platform::ReleaseSignals();
    return CheckInstance(json);
}
