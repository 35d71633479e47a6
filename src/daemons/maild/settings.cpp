#include "daemons/maild/settings.h"

#include <unistd.h>

#include "daemons/maild/rules.h"
#include "platform/home.h"
#include "trelis/keys/settings.h"

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kMailDaemonKey, name}; }

WhenEncrypted ReadWhenEncrypted() {
    const std::string text = trelis::ReadText(Key("WhenEncrypted"));
    if (text == "pass") return WhenEncrypted::kPass;
    return text == "refuse" ? WhenEncrypted::kRefuse : WhenEncrypted::kPutOff;
}
WhenOdd ReadWhenOdd(const trelis::Key& key) {
    const std::string text = trelis::ReadText(key);
    if (text == "pass") return WhenOdd::kPass;
    return text == "refuse" ? WhenOdd::kRefuse : WhenOdd::kPutOff;
}
std::vector<EngineSetting> ReadEngines() {
    constexpr trelis::Key kEngine = Key("Engines/*");
    std::vector<EngineSetting> engines;
    trelis::NameWalk walk(kEngine);
    for (std::string name; engines.size() < kMostEngines && walk.Next(name);) {
        std::string address = trelis::ReadText(kEngine, {name});
        // One that is taken away for a while by an empty value is none.
        if (!address.empty()) engines.push_back({name, std::move(address)});
    }
    if (engines.empty()) engines.push_back({"clamd", ""});
    return engines;
}
bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

}  // namespace

std::shared_ptr<const Settings> LoadSettings() {
    auto settings = std::make_shared<Settings>();
    const std::string ownConf = platform::HomePath("clamd/clamd.conf");
    settings->engines = ReadEngines();
    settings->clamdSocket = trelis::ReadText(Key("ClamdSocket"));
    settings->clamdConf = trelis::ReadText(Key("ClamdConf"));
    if (settings->clamdConf.empty())
        settings->clamdConf = Exists(ownConf) ? ownConf : "/etc/clamav/clamd.conf";
    settings->connectSeconds = trelis::ReadInt(Key("ConnectTimeout"));
    settings->scanSeconds = trelis::ReadInt(Key("ScanTimeout"));
    settings->maxFileSize = trelis::ReadSize(Key("MaxFileSize")).value_or(kUsualMaxFileSize);
    settings->virusAction = trelis::ReadText(Key("VirusAction"));
    settings->redirectAddress = trelis::ReadFormed(Key("RedirectAddress"));
    settings->antivirusAction = trelis::ReadText(Key("Antivirus/Action"));
    settings->quarantineDays = trelis::ReadInt(Key("Quarantine/KeepDays"));
    settings->quarantineSize =
        trelis::ReadSize(Key("Quarantine/MaxSize")).value_or(Settings().quarantineSize);
    settings->whenEncrypted = ReadWhenEncrypted();
    settings->maxDepth = trelis::ReadInt(Key("MaxDepth"));
    settings->maxParts = trelis::ReadInt(Key("MaxParts"));
    settings->maxHeaderBytes =
        trelis::ReadSize(Key("MaxHeaderBytes")).value_or(Settings().maxHeaderBytes);
    settings->tooComplex = ReadWhenOdd(Key("TooComplex"));
    settings->whenAmbiguous = ReadWhenOdd(Key("WhenAmbiguous"));
    settings->attachments = LoadAttachmentRules();
    settings->content = LoadContentRules();
    settings->antispam = maild::LoadSpamSettings();
    settings->passWhenDown = trelis::ReadFlag(Key("PassWhenDown"));
    settings->passWhenBusy = trelis::ReadFlag(Key("PassWhenBusy"));
    settings->passWhenTimedOut = trelis::ReadFlag(Key("PassWhenTimedOut"));
    settings->passWhenTooBig = trelis::ReadFlag(Key("PassWhenTooBig"));
    return settings;
}

int LoadThreads() { return trelis::ReadInt(Key("Threads")); }

std::string FindClamdSocket(const std::string& configured) {
    if (!configured.empty()) return configured;
    std::string own = platform::HomePath("clamd/clamd.sock");
    return Exists(own) ? own : "/run/clamav/clamd.ctl";
}
