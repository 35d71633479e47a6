#include "daemons/quarantine/outward/release.h"

#include "session/server/prepare.h"
#include "text/mailbox.h"
#include "text/printable.h"
#include "trelis/keys/settings.h"

namespace {

consteval trelis::Key Key(const char* name) { return {trelis::kInterfaceKey, name}; }

std::string FirstInterface() {
    std::string name;
    trelis::NameWalk walk(Key("ServerToForward"));
    return walk.Next(name) ? name : std::string();
}

bool Exists(const std::string& interface) {
    trelis::NameWalk walk(Key("ServerToForward"));
    for (std::string name; walk.Next(name);) {
        if (name == interface) return true;
    }
    return false;
}

Released SendKept(quarantine::Quarantine& store, const quarantine::KeptMessage& message,
                  const std::string& to, bool again, const Destination& destination,
                  std::string& said) {
    const std::string& id = message.id;
    Letter letter;
    letter.sender = Mailbox(message.sender);
    letter.recipients =
        to.empty() ? SplitRecipients(message.recipients) : std::vector<std::string>{to};
    letter.header = "X-Vantrel-Released: " + id;
    if (letter.recipients.empty()) {
        said = "it has no recipients";
        return Released::kNo;
    }
    bool spent = false;
    const platform::File file = store.Claim(id, again, said, &spent);
    if (!file) return spent ? Released::kOnce : Released::kNo;
    letter.message = &file;
    std::string complaint;
    switch (SendLetter(destination, letter, said)) {
        case Sent::kTaken:
            if (!store.EndRelease(id, true, complaint))
                said += "; the server has it, but that can't be noted: " + complaint;
            return Released::kYes;
        case Sent::kRefused:
            if (!store.EndRelease(id, false, complaint))
                said += "; its state can't be put back: " + complaint;
            return Released::kNo;
        case Sent::kUnknown:
            said += "; the server may have it";
            return Released::kOnce;
    }
    return Released::kNo;
}

}  // namespace

std::optional<Destination> DestinationOf(const std::string& interface, std::string& complaint) {
    const std::string name = interface.empty() ? FirstInterface() : interface;
    if (name.empty() || !Exists(name)) {
        complaint = name.empty() ? "no interface is configured" : "there is no interface " + name;
        return std::nullopt;
    }
    Destination destination;
    destination.servers.push_back(
        ServerAddress::Parse(trelis::ReadText(Key("ServerToForward"), {name})));
    trelis::NameWalk others(Key("FallbackServers/*"), {name});
    for (std::string each; others.Next(each);) {
        const std::string text = trelis::ReadText(Key("FallbackServers/*"), {name, each});
        if (!text.empty()) destination.servers.push_back(ServerAddress::Parse(text));
    }
    destination.helo = EhloName(trelis::ReadLine(Key("GreetingDomainName"), {name}));
    destination.tls = static_cast<ServerTls>(trelis::ReadChoice(Key("ServerTLS/Mode"), {name}));
    destination.caFile = trelis::ReadText(Key("ServerTLS/CAFile"), {name});
    destination.certName = trelis::ReadText(Key("ServerTLS/Name"), {name});
    return destination;
}

Released Release(quarantine::Quarantine& store, const std::string& id, const std::string& to,
                 bool again, const Destination& destination, const Actor& actor,
                 std::string& said) {
    const std::optional<quarantine::KeptMessage> message = store.Find(id, said);
    if (!message) return Released::kNo;
    const Released released = SendKept(store, *message, to, again, destination, said);
    LogAct(*message, "release", actor, to, released == Released::kYes, said);
    return released;
}

bool Delete(quarantine::Quarantine& store, const std::string& id, const Actor& actor,
            std::string& complaint) {
    const std::optional<quarantine::KeptMessage> message = store.Find(id, complaint);
    if (!message) return false;
    const bool deleted = store.Delete(id, complaint);
    LogAct(*message, "delete", actor, "", deleted, deleted ? std::string() : complaint);
    return deleted;
}
