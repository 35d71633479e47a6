// The mail-scanning daemon: answers scan requests with clamd's judgement of the spool file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

#include "daemons/clamd.h"
#include "daemons/daemon.h"
#include "daemons/mailfile.h"
#include "daemons/statcodes.h"
#include "daemons/verdictstats.h"
#include "logclient/logclient.h"
#include "platform/home.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"
#include "trelis/buffered.h"

namespace {

constexpr char kKey[] = "/VTWIN/Daemons/MailDaemon";
constexpr std::int32_t kMaskForward = 1;
constexpr std::int32_t kMaskDrop = 2;
constexpr std::int32_t kMaskReject = 4;
constexpr std::int32_t kMaskChildren = 0x10;
constexpr std::int32_t kRedirectBit = 1;

// One set of settings; a scan keeps the one that it began with.
struct Settings {
    ClamdSettings clamd;
    std::string clamdConf;
    long long maxFileSize = 0;  // bytes
    std::string virusAction;
    std::string redirectAddress;
    bool passWhenDown = false;
    bool passWhenBusy = false;
    bool passWhenTimedOut = false;
    bool passWhenTooBig = false;
};

std::string ReadText(const char* name, const std::string& fallback) {
    char value[512];
    const std::string key = std::string(kKey) + "/" + name;
    BufferedGetValue(kLocalStore, key.c_str(), value, sizeof value);
    return value[0] == '\0' ? fallback : value;
}
long long ReadNumber(const char* name, long long fallback) {
    const long long number = std::strtoll(ReadText(name, "0").c_str(), nullptr, 10);
    return number > 0 ? number : fallback;
}
bool ReadFlag(const char* name) {
    const std::string text = ReadText(name, "N");
    return text[0] == 'Y' || text[0] == 'y';
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::shared_ptr<const Settings> LoadSettings() {
    auto settings = std::make_shared<Settings>();
    const std::string own = platform::HomePath("clamd/clamd.sock");
    const std::string ownConf = platform::HomePath("clamd/clamd.conf");
    settings->clamd.socketPath =
        ReadText("ClamdSocket", Exists(own) ? own : "/run/clamav/clamd.ctl");
    settings->clamdConf =
        ReadText("ClamdConf", Exists(ownConf) ? ownConf : "/etc/clamav/clamd.conf");
    settings->clamd.connectSeconds =
        static_cast<int>(std::min(ReadNumber("ConnectTimeout", 5), 3600LL));
    settings->clamd.scanSeconds =
        static_cast<int>(std::min(ReadNumber("ScanTimeout", 120), 3600LL));
    settings->maxFileSize = ReadNumber("MaxFileSize", 25LL << 20);
    settings->virusAction = ReadText("VirusAction", "reject");
    settings->redirectAddress = ReadText("RedirectAddress", "");
    settings->passWhenDown = ReadFlag("PassWhenDown");
    settings->passWhenBusy = ReadFlag("PassWhenBusy");
    settings->passWhenTimedOut = ReadFlag("PassWhenTimedOut");
    settings->passWhenTooBig = ReadFlag("PassWhenTooBig");
    return settings;
}

void Warn(const std::string& text) {
    std::fprintf(stderr, "VTMAILD: %s\n", text.c_str());
    LogClientPost(kEventWarning, nullptr, nullptr, nullptr, nullptr, nullptr, text.c_str());
}

// A size as clamd.conf has it: a number with K, M or G behind it.
long long ParseSize(const std::string& text) {
    char* end = nullptr;
    const long long number = std::strtoll(text.c_str(), &end, 10);
    switch (*end) {
        case 'k':
        case 'K':
            return number << 10;
        case 'm':
        case 'M':
            return number << 20;
        case 'g':
        case 'G':
            return number << 30;
        default:
            return number;
    }
}

// As clamd.conf has it.
bool IsYes(const std::string& value) {
    return value == "yes" || value == "Yes" || value == "true" || value == "True" || value == "1";
}

// Behind its own limits clamd calls a file clean: mail between its limits and ours would pass
// unscanned.
void CompareLimits(const Settings& settings) {
    long long limits[] = {100LL << 20, 100LL << 20, 400LL << 20};  // clamd's own defaults
    const char* const names[] = {"StreamMaxLength", "MaxFileSize", "MaxScanSize"};
    std::ifstream file(settings.clamdConf);
    if (!file)
        Warn("can't read " + settings.clamdConf +
             ": clamd's size limits are taken to be its defaults");
    bool tellsOfLimits = !file;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string word;
        std::string value;
        if (!(words >> word >> value)) continue;
        if (word == "AlertExceedsMax") tellsOfLimits = IsYes(value);
        for (std::size_t i = 0; i < std::size(names); ++i) {
            // 0 means no limit.
            if (word == names[i]) limits[i] = value == "0" ? 1LL << 62 : ParseSize(value);
        }
    }
    for (std::size_t i = 0; i < std::size(names); ++i) {
        if (limits[i] >= settings.maxFileSize) continue;
        Warn(std::string("mail could pass unscanned: clamd's ") + names[i] + " is " +
             std::to_string(limits[i]) + " bytes, below MaxFileSize of " +
             std::to_string(settings.maxFileSize));
    }
    if (!tellsOfLimits)
        Warn(
            "mail could pass unscanned: without AlertExceedsMax clamd calls an archive clean that "
            "unpacks to more than its limits");
}

bool Add(TagMsgNode* node, std::uint32_t tag, std::int32_t number) {
    return TagMsgAddAttr(node, tag, &number) == TAGMSG_OK;
}
bool Add(TagMsgNode* node, std::uint32_t tag, const char* text) {
    return TagMsgAddAttr(node, tag, text) == TAGMSG_OK;
}

TagMsgNode* AddChild(TagMsgNode* parent) {
    TagMsgNode* child = nullptr;
    if (TagMsgCreate(&child) != TAGMSG_OK || TagMsgAddChild(parent, child) != TAGMSG_OK)
        return nullptr;
    return child;
}

bool Redirects(const Settings& settings) {
    return settings.virusAction == "redirect" && !settings.redirectAddress.empty();
}

bool BuildInfected(TagMsgNode* root, const Settings& settings, const std::string& signature) {
    const bool redirect = Redirects(settings);
    const bool drop = redirect || settings.virusAction == "drop";
    const std::int32_t mask = drop ? kMaskDrop : kMaskReject;
    if (!Add(root, TagActionMask, mask | kMaskChildren)) return false;
    TagMsgNode* section = AddChild(root);
    if (section == nullptr || !Add(section, TagSection, "Antivirus") ||
        !Add(section, TagResultCode, 1) ||
        !Add(section, TagActionMask, redirect ? mask | kRedirectBit : mask))
        return false;
    if (redirect && !Add(section, TagRecipients, settings.redirectAddress.c_str())) return false;
    TagMsgNode* object = AddChild(section);
    return object != nullptr && Add(object, TagObjectName, "message") &&
           Add(object, TagObjectTextA, signature.c_str()) && Add(object, TagObjectTextB, "") &&
           Add(object, TagObjectTextC, "") && Add(object, TagResultCode, 1) &&
           Add(object, TagObjectStatus, 1);
}

class MailDaemon final : public Daemon {
  public:
    MailDaemon()
        : Daemon("VTMAILD", "Vantrel Mail Scanner",
                 "Scans the messages that the Vantrel SMTP proxy hands to it", "vtmaild") {}

  protected:
    DaemonKeys Keys() const override {
        // An empty text leaves the choice to the daemon.
        return {kKey,
                "/VTWIN/Versions/VTMAILD",
                {{"ClamdSocket", ""},
                 {"ClamdConf", ""},
                 {"MaxFileSize", "26214400"},
                 {"ConnectTimeout", "5"},
                 {"ScanTimeout", "120"},
                 {"Threads", "16"},
                 {"VirusAction", "reject"},
                 {"RedirectAddress", ""},
                 {"PassWhenDown", "N"},
                 {"PassWhenBusy", "N"},
                 {"PassWhenTimedOut", "N"},
                 {"PassWhenTooBig", "N"}}};
    }
    bool Start(int argc, char** argv) override {
        for (int i = 0; i < argc; ++i) null_ = null_ || std::strcmp(argv[i], "--null") == 0;
        if (null_)
            std::fprintf(stderr,
                         "VTMAILD: --null: every message is called clean, nothing is scanned\n");
        threads_ = static_cast<int>(std::min(ReadNumber("Threads", 16), 200LL));
        LogClientInit("Vantrel Mail Scanner", kLocalStore);
        watch_ = TrelisPlaceNotify(kLocalStore, kKey, 1);
        settings_ = LoadSettings();
        if (null_) return true;
        CompareLimits(*settings_);
        if (!stats_.Start()) Warn("can't send statistics");
        return true;
    }
    int Threads() const override { return threads_; }
    void End() override {
        stats_.Stop();
        LogClientUninit();
        if (watch_ != nullptr) TrelisCancelNotify(kLocalStore, kKey, 1, watch_);
    }
    void Answer(const void* data, std::uint32_t length, void** reply,
                std::uint32_t* replyLength) override {
        OwnedMessage request;
        if (data == nullptr || length > 0x7FFFFFFF ||
            TagMsgParse(&request.root, data, static_cast<std::int32_t>(length)) != TAGMSG_OK)
            return;
        const void* path = nullptr;
        if (TagMsgPeekAttr(request.root, TagPath, &path) != TAGMSG_OK || path == nullptr) return;
        const std::shared_ptr<const Settings> settings = CurrentSettings();
        const ScanResult result = null_ ? ScanResult{ScanOutcome::kClean, ""}
                                        : Scan(*settings, static_cast<const char*>(path));
        OwnedMessage answer;
        if (TagMsgCreate(&answer.root) != TAGMSG_OK) return;
        bool good = false;
        std::int32_t event = kStatNotScanned;
        if (result.outcome == ScanOutcome::kInfected) {
            good = BuildInfected(answer.root, *settings, result.text);
            event = InfectedEvent(*settings);
            ReportVirus(request.root, result.text);
        } else if (result.outcome == ScanOutcome::kClean || MayPass(*settings, result)) {
            good = Add(answer.root, TagActionMask, kMaskForward);
            event = result.outcome == ScanOutcome::kClean ? kStatClean : kStatPassedUnscanned;
        }
        if (!null_) Count(request.root, static_cast<const char*>(path), event, result);
        // Without a reply tree the client gets a reply without data: the scan has failed, and the
        // message is put off.
        if (good) TagMsgSerialize(answer.root, reply, replyLength);
    }

  private:
    // Change and reading under one lock: no request is judged by settings that another thread knows
    // to be old, and no older reading replaces a newer one.
    std::shared_ptr<const Settings> CurrentSettings() {
        std::shared_ptr<const Settings> current;
        bool changed = false;
        {
            const std::lock_guard lock(mutex_);
            changed = watch_ != nullptr && TrelisWaitNotify(kLocalStore, watch_, 0) > 0;
            if (changed) settings_ = LoadSettings();
            current = settings_;
        }
        if (changed && !null_) CompareLimits(*current);
        return current;
    }

    static ScanResult Scan(const Settings& settings, const char* path) {
        const platform::File file(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
        struct stat info {};
        if (!file || fstat(file.Descriptor(), &info) != 0 || !S_ISREG(info.st_mode))
            return {ScanOutcome::kFailed, "can't read the message"};
        if (info.st_size > settings.maxFileSize)
            return {ScanOutcome::kTooBig, "larger than MaxFileSize"};
        if (info.st_size == 0) return {ScanOutcome::kClean, ""};
        if (ScannableAsItIs(file.Descriptor()))
            return ScanWithClamd(settings.clamd, file.Descriptor());
        bool unstuffed = false;
        const platform::File copy = MakeScanCopy(file.Descriptor(), unstuffed);
        if (!copy) return {ScanOutcome::kFailed, "can't copy the message"};
        ScanResult result = ScanWithClamd(settings.clamd, copy.Descriptor());
        // Bytes that only make a pattern as they stand in the wire form, dots doubled, are found in
        // the file itself.
        if (unstuffed && result.outcome == ScanOutcome::kClean)
            result = ScanWithClamd(settings.clamd, file.Descriptor());
        return result;
    }

    static std::int32_t InfectedEvent(const Settings& settings) {
        if (Redirects(settings)) return kStatInfectedRedirected;
        return settings.virusAction == "drop" ? kStatInfectedDropped : kStatInfectedRefused;
    }

    void Count(TagMsgNode* request, const char* path, std::int32_t event,
               const ScanResult& result) {
        const auto text = [request](std::uint32_t tag) {
            const void* found = nullptr;
            return TagMsgPeekAttr(request, tag, &found) == TAGMSG_OK && found != nullptr
                       ? std::string(static_cast<const char*>(found))
                       : std::string();
        };
        struct stat info {};
        stats_.Add({event, text(TagPeerAddress), text(TagSender), text(TagRecipients),
                    result.outcome == ScanOutcome::kInfected ? result.text : std::string(),
                    stat(path, &info) == 0 ? static_cast<long long>(info.st_size) : 0});
    }

    static bool MayPass(const Settings& settings, const ScanResult& result) {
        bool pass = false;
        switch (result.outcome) {
            case ScanOutcome::kDown:
                pass = settings.passWhenDown;
                break;
            case ScanOutcome::kBusy:
                pass = settings.passWhenBusy;
                break;
            case ScanOutcome::kTimedOut:
                pass = settings.passWhenTimedOut;
                break;
            case ScanOutcome::kTooBig:
                pass = settings.passWhenTooBig;
                break;
            default:
                break;
        }
        Warn(std::string(pass ? "a message passes unscanned: "
                              : "a message could not be scanned: ") +
             result.text);
        return pass;
    }

    static void ReportVirus(TagMsgNode* request, const std::string& signature) {
        const void* sender = nullptr;
        const void* recipients = nullptr;
        const void* peer = nullptr;
        const void* path = nullptr;
        TagMsgPeekAttr(request, TagSender, &sender);
        TagMsgPeekAttr(request, TagRecipients, &recipients);
        TagMsgPeekAttr(request, TagPeerAddress, &peer);
        TagMsgPeekAttr(request, TagPath, &path);
        const auto* from = static_cast<const char*>(sender);
        const auto* to = static_cast<const char*>(recipients);
        LogClientPost(kEventWarning, from, to, static_cast<const char*>(path),
                      static_cast<const char*>(peer), nullptr,
                      ("virus found: " + signature).c_str());
    }

    bool null_ = false;
    VerdictStats stats_;
    int threads_ = 16;
    TrelisNotify watch_ = nullptr;
    std::mutex mutex_;
    std::shared_ptr<const Settings> settings_;  // guarded by mutex_
};

}  // namespace

int main(int argc, char** argv) {
    MailDaemon daemon;
    return RunDaemon(daemon, argc, argv);
}
