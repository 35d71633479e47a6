// The store's tool: reads, changes, lists and follows the configuration. With one of the options of
// a service, or started by a service manager, it is the service VTREGISTRY.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "daemons/frame/daemon.h"
#include "daemons/registryd/changes/edit.h"
#include "daemons/registryd/changes/history.h"
#include "daemons/registryd/files.h"
#include "daemons/registryd/reference.h"
#include "daemons/registryd/set.h"
#include "daemons/registryd/show.h"
#include "daemons/registryd/store_server.h"
#include "metrics/count.h"
#include "ntservice/ntservice.h"
#include "ntservice/words.h"
#include "platform/account.h"
#include "platform/console.h"
#include "platform/file.h"
#include "platform/sync.h"
#include "trelis/admin.h"
#include "trelis/keys/check.h"
#include "trelis/keys/names.h"
#include "trelis/keys/registration.h"
#include "trelis/trelis.h"

namespace {

constexpr int kValueSize = 1 << 20;

int Missing(const std::string& key) { return Failed("no such key: " + key); }

int Get(const Arguments& arguments) {
    const auto key = PathOf(arguments[0]);
    if (!key) return kExitFailed;
    std::vector<char> value(kValueSize);
    if (TrelisGetValue(kLocalStore, key->c_str(), value.data(), kValueSize) == 0) {
        std::cout << value.data() << '\n';
        return 0;
    }
    const auto known = trelis::FindByPath(*key);
    return known ? Failed("not set: " + arguments[0] +
                          " (default: " + trelis::DefaultInWords(*known->row) + ')')
                 : UnknownKey(arguments[0]);
}

int Del(const Arguments& arguments) {
    const auto key = PathOf(arguments[0]);
    if (!key) return kExitFailed;
    return trelis::DeleteTrees({*key}, true)
               ? 0
               : Failed("can't delete " + *key + ": " + trelis::WhyNotChanged("no absolute path"));
}

int List(const Arguments& arguments) {
    const auto key = PathOf(arguments[0]);
    if (!key) return kExitFailed;
    const auto names = trelis::ListChildren(*key);
    if (!names) return Missing(*key);
    for (const std::string& name : *names) std::cout << name << '\n';
    return 0;
}

int Keys(const Arguments& arguments) {
    const std::string what = arguments.empty() ? "" : arguments[0];
    if ((what == "--values") != (arguments.size() == 2))
        return WrongWords("keys takes a prefix, --short, --reference, or --values and a key");
    if (what == "--values") {
        std::cout << ValuesOf(arguments[1]);
        return 0;
    }
    std::cout << (what == "--reference" ? ReferenceTables()
                  : what == "--short"   ? ShortNames()
                                        : ListOfKeys(what));
    return 0;
}

// The code of a command whose output has not come to its end, as a backup that is half a one.
int Written(int code) {
    if (std::cout.flush()) return code;
    std::cout.clear();
    errno = 0;
    std::cout << '\n' << std::flush;  // says why once more
    // Who has closed the other end of a pipe has read what he wanted.
    return errno == EPIPE ? kExitFailed
                          : Failed(std::string("can't write the output") +
                                   (errno == 0 ? "" : std::string(": ") + std::strerror(errno)));
}

BOOL EndWatch(DWORD) { platform::ExitNow(0); }

int WatchKey(const Arguments& arguments) {
    const auto typed = PathOf(arguments[0]);
    if (!typed) return kExitFailed;
    const std::string& key = *typed;
    const std::string below = key == "/" ? key : key + '/';
    SetConsoleCtrlHandler(EndWatch, TRUE);
    const bool following = trelis::FollowChanges([&](const std::string& path) {
        // A deletion above the key, or changes too many to tell one by one, concern it too.
        const bool above = path == "/" || below.compare(0, path.size() + 1, path + '/') == 0;
        if (path == key || above || path.compare(0, below.size(), below) == 0)
            std::cout << path << std::endl;
        // Nobody would see what comes after it.
        if (!std::cout) platform::ExitNow(Written(0));
    });
    if (!following) return Failed("can't watch " + key);
    // The end of who reads is told of even where nothing changes; all else ends the process.
    pollfd output{STDOUT_FILENO, 0, 0};
    while (poll(&output, 1, -1) < 0 && errno == EINTR) {
    }
    platform::ExitNow(kExitFailed);
}

// Local programs open the store themselves and need no service for that; it answers the reads of
// other hosts, where that is switched on.
class StoreService final : public CNTService {
  public:
    StoreService()
        : CNTService("VTREGISTRY"), stopEvent_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
        displayName = "Vantrel Configuration Store";
        description = "Keeps the configuration of the Vantrel programs";
        acceptedControls = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
    }
    void Run(int, char**) override {
        ReportStatus(SERVICE_START_PENDING, 3000, 0);
        const bool alone = lock_.Take(serviceName.c_str());
        if (!alone || TrelisInit2() != 0) {
            std::cerr << "VTREGISTRY: " << (alone ? trelis::WhyNotOpen() : lock_.Error()) << '\n';
            return;
        }
        if (!metrics::Open(metrics::Program::kStore))
            std::cerr << "VTREGISTRY: can't make its file below metrics: nothing of it is shown\n";
        if (!server_.Start()) std::cerr << "VTREGISTRY: can't serve other hosts\n";
        ReportStatus(SERVICE_RUNNING, 3000, 0);
        WaitForSingleObject(stopEvent_.Get(), INFINITE);
        server_.Stop();
        TrelisUninit();
    }
    void Stop() override {
        ReportStatus(SERVICE_STOP_PENDING, 10000, 0);
        SetEvent(stopEvent_.Get());
    }
    void Shutdown() override { Stop(); }
    int RegisterDefaults() override { return trelis::Register(Keys(), platform::PersonName()); }
    int UnregisterDefaults() override { return trelis::Unregister(Keys(), platform::PersonName()); }

  private:
    trelis::Registration Keys() const {
        return {trelis::Program::kStore, "VTREGISTRY", displayName};
    }

    UniqueHandle stopEvent_;
    platform::InstanceLock lock_;
    StoreServer server_;
};

struct Command {
    const char* word;
    std::size_t least;
    std::size_t most;
    int (*run)(const Arguments&);
    bool reads = false;  // and nothing else
};
constexpr Command kCommands[] = {
    {"get", 1, 1, Get, true},
    {"set", 2, 3, SetKey},
    {"show", 0, 2, Show, true},
    {"del", 1, 1, Del},
    {"list", 1, 1, List, true},
    {"dump", 0, 1, Dump, true},
    {"load", 0, 2, Load},
    {"diff", 1, 2, Diff, true},
    {"edit", 1, 1, Edit},
    {"undo", 0, 2, Undo},
    {"watch", 1, 1, WatchKey},
    {"keys", 0, 2, Keys, true},
    {"history", 0, 2, ShowHistory, true},
};

constexpr ServiceWords kWords{
    "vtregistry",
    "Reads, changes and follows the configuration; also the service that lets other hosts read "
    "it.\n",
    "  show [--changed] [KEY]\n"
    "                        print the keys that programs know, as they stand: all, or those at "
    "and\n"
    "                        below KEY; with --changed what somebody has changed\n"
    "  get KEY               print a value\n"
    "  set [--force] KEY VALUE\n"
    "                        store a value, which counts at once\n"
    "  del KEY               delete a key and all below it\n"
    "  list KEY              print the names below a key\n"
    "  dump [KEY]            print all values as one JSON object\n"
    "  load [--check] [FILE] store the values of such an object, all or none; with --check only "
    "print\n"
    "                        what programs won't take or don't read\n"
    "  diff FILE [KEY]       print what stands otherwise in such a file: - here, + there\n"
    "  edit KEY              open what stands at and below a key in $EDITOR, and take what was "
    "changed\n"
    "  history [--json] [KEY]\n"
    "                        print what people have changed: who, when, old and new value\n"
    "  undo [--force] [ACT]  take back the last change, or one by its number in the history\n"
    "  watch KEY             print each change, until Ctrl-C\n"
    "  keys [PREFIX | --short | --reference | --values KEY]\n"
    "                        print the paths that programs know, with their meaning, or the short\n"
    "                        names alone, or the values that a key knows\n"
    "KEY is a short name, such as interface.net.server or maild.scantimeout, or an absolute path.\n"
    "Sizes and times may have units: 25M, 10m. Manual: vtregistry(1), vantrel-keys(5)\n"};

int Unknown(const std::string& what) { return WrongUsage(ServiceUsage(kWords), what); }

}  // namespace

int main(int argc, char** argv) {
    if (const std::optional<int> code = AnswerHelp(ServiceUsage(kWords), argc, argv)) return *code;
    const Arguments words(argv + 1, argv + argc);
    if (words.empty() ? platform::StartedByServiceManager() : CNTService::IsOption(words[0])) {
        StoreService service;
        return RunDaemon(service, argc, argv);
    }
    platform::HoldSignals();
    if (words.empty() || words[0] != "watch") platform::ReleaseSignals();
    for (const Command& command : kCommands) {
        if (words.empty() || words[0] != command.word) continue;
        const Arguments arguments(words.begin() + 1, words.end());
        if (arguments.size() < command.least || arguments.size() > command.most)
            return Unknown(words[0] + ": too many or too few words behind it");
        if ((command.reads ? trelis::InitToRead() : TrelisInit2()) != 0)
            return Failed(trelis::WhyNotOpen());
        trelis::KeepHistory(platform::PersonName(), words[0]);
        const int code = Written(command.run(arguments));
        TrelisUninit();
        return code;
    }
    return Unknown(words.empty() ? "nothing to do" : "unknown word: " + words[0]);
}
