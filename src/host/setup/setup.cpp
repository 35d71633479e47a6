#include "host/setup/setup.h"

#include <algorithm>
#include <cstdio>

#include "host/check/check.h"
#include "host/setup/plan.h"
#include "host/smtp.h"
#include "net/socket.h"
#include "platform/account.h"
#include "platform/console.h"
#include "platform/home.h"
#include "text/printable.h"
#include "text/usage.h"
#include "trelis/admin.h"
#include "trelis/keys/settings.h"

namespace {

constexpr char kHelp[] =
    "usage: vtsmtpproxy setup --server HOST:PORT --domain DOMAIN --relay NETWORK\n"
    "         [--listen ADDRESS:PORT] [--certificate FILE [--key FILE]] [--force]\n"
    "Writes the configuration of a mail server on the Internet: the interface \"net\". --domain "
    "and\n"
    "--relay (192.0.2.0/24, 192.0.2.0/255.255.255.0, 2001:db8::/32) may be given several times.\n"
    "Without options it asks. An interface that is there is only written anew with --force.\n";

constexpr trelis::Key kAnyKey{trelis::kInterfaceKey, "Name"};
constexpr trelis::Key kVersion{trelis::kVersionsKey, "*/Version"};
constexpr char kVersionName[] = "VTSMTPProxy";

int NothingDone(const std::string& why) {
    std::fprintf(stderr, "vtsmtpproxy setup: %s\n", CleanText(why).c_str());
    return kExitUsage;
}

// The reference on the store, for as long as this lives.
class OpenedStore {
  public:
    OpenedStore() : opened_(TrelisInit2() == 0) {}
    OpenedStore(const OpenedStore&) = delete;
    OpenedStore& operator=(const OpenedStore&) = delete;
    ~OpenedStore() {
        if (opened_) TrelisUninit();
    }
    explicit operator bool() const { return opened_; }

  private:
    const bool opened_;
};

// "::" where this host has IPv6; else what stands for all of IPv4.
std::string AllAddresses() {
    CSocket socket;
    const SocketAddress any = IpAddress().WithPort(0);
    const bool both = socket.Create(SOCK_STREAM, any) && socket.Bind(any);
    socket.Close();
    return both ? "::" : "";
}

std::string InterfaceRoot() {
    const std::string path = kAnyKey.Path({kSetupInterface});
    return path.substr(0, path.rfind('/'));
}

// What the interface had besides, a network that may relay above all, must not go on in the new
// one.
bool Store(const trelis::Values& old, const trelis::Values& plan) {
    std::vector<trelis::ValueChange> changes;
    for (const auto& [path, value] : old) {
        const bool kept =
            std::any_of(plan.begin(), plan.end(), [&path = path](const auto& planned) {
                return planned.first == path || planned.first.starts_with(path + '/');
            });
        if (!kept && path != kAnyKey.Path({kSetupInterface}) && path != InterfaceRoot())
            changes.push_back({path, value, std::nullopt});
    }
    for (const auto& [path, value] : plan) changes.push_back({path, std::nullopt, value});
    trelis::KeepHistory(platform::PersonName(), "setup");
    std::string where;
    return trelis::ApplyChanges(changes, true, 0, where) == trelis::Applied::kDone;
}

// The other keys of the proxy get their defaults where nobody has registered it before: later that
// would write over this interface.
void RegisterIfNew() {
    if (!trelis::ReadIfGiven(kVersion, {kVersionName})) CSMTP::WriteDefaults("");
}

int Write(const SetupWishes& wishes) {
    const trelis::Values plan = PlanInterface(wishes, platform::HostName(), AllAddresses());
    if (const std::string fault = FindFaultInPlan(plan); !fault.empty()) return NothingDone(fault);
    const OpenedStore store;
    if (!store) return NothingDone(trelis::WhyNotOpen());
    trelis::Values old = trelis::DumpTree(InterfaceRoot()).value_or(trelis::Values());
    const bool untouched = IsUntouched(old);
    if (!untouched && !wishes.force)
        return NothingDone("there is an interface already, " + InterfaceRoot() +
                           ": nothing was changed; --force writes it anew");
    if (untouched) RegisterIfNew();
    old = trelis::DumpTree(InterfaceRoot()).value_or(trelis::Values());
    if (!Store(old, plan))
        return NothingDone("can't write: " + trelis::WhyNotChanged("the store takes no changes"));
    for (const auto& [path, value] : plan)
        std::printf("%s = %s\n", CleanText(path).c_str(), CleanText(value).c_str());
    std::fflush(stdout);
    return CheckInstance(false);
}

}  // namespace

int RunSetup(const std::vector<std::string>& words) {
    platform::ReleaseSignals();
    const Usage usage{"vtsmtpproxy setup", kHelp};
    if (words == std::vector<std::string>{"--help"}) return PrintUsage(usage);
    SetupWishes wishes;
    const bool ask = words.empty();
    if (ask && !AskForWishes(wishes))
        return WrongUsage(usage, "there is nobody to ask, or no answer");
    if (!ask) {
        if (const std::string wrong = ReadWishes(words, wishes); !wrong.empty())
            return WrongUsage(usage, wrong);
    }
    if (platform::Home().empty()) return NothingDone(platform::HomeError());
    return Write(wishes);
}
