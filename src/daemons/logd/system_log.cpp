#include "daemons/logd/system_log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>

#include "logclient/logclient.h"
#include "text/ascii.h"

namespace {

constexpr char kName[] = "vantrel";
constexpr int kFileOnly = -1;

int Priority(std::uint32_t word) {
    if ((word & kLevelLow) != 0) return kFileOnly;
    if ((word & kLevelMedium) != 0) return LOG_INFO;
    switch (word & 0xFFFF0000) {
        case kEventError:
            return LOG_ERR;
        case kEventVirus:
        case kEventWarning:
        case kEventFileNotScanned:
        case kEventUpdateError:
            return LOG_WARNING;
        default:
            return LOG_NOTICE;
    }
}

// A value with a line end goes with its length in front, 64 bits, the lowest byte first.
void AppendField(std::string& fields, std::string_view name, std::string_view value) {
    if (value.empty()) return;
    fields += name;
    if (value.find('\n') == std::string_view::npos) {
        fields += '=';
    } else {
        fields += '\n';
        auto length = static_cast<std::uint64_t>(value.size());
        for (std::size_t i = 0; i < sizeof length; ++i, length >>= 8U)
            fields += static_cast<char>(length & 0xFFU);
    }
    fields.append(value) += '\n';
}

std::string FieldName(std::string_view name) {
    std::string upper = "VANTREL_";
    for (const char c : name) upper += IsLetter(c) ? static_cast<char>(c - 'a' + 'A') : c;
    return upper;
}

}  // namespace

std::string JournalFields(int priority, std::string_view text, LogLineReader& reader) {
    std::string fields;
    AppendField(fields, "MESSAGE", text);
    AppendField(fields, "PRIORITY", std::to_string(priority));
    AppendField(fields, "SYSLOG_FACILITY", std::to_string(LOG_MAIL >> 3));
    AppendField(fields, "SYSLOG_IDENTIFIER", kName);
    AppendField(fields, "VANTREL_TIME_MS", std::to_string(reader.Time()));
    AppendField(fields, "VANTREL_EVENT", LogLineWord(reader.Kind()));
    for (const LogLineField& field : LogLineFields(reader.Kind()))
        AppendField(fields, FieldName(field.name), reader.Value());
    return fields;
}

void SystemLog::Open(const char* journalSocket) {
    syslog_ = access("/dev/log", W_OK) == 0;
    if (syslog_) openlog(kName, LOG_PID, LOG_MAIL);
    if (access(journalSocket, W_OK) != 0) return;
    journal_.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (journal_) journalPath_ = journalSocket;
}

void SystemLog::Tell(std::uint32_t word, const std::string& text) const {
    const int priority = Priority(word);
    if (syslog_ && priority != kFileOnly) syslog(priority, "%s", text.c_str());
}

void SystemLog::TellLine(std::uint32_t word, const std::string& text, LogLineReader reader) const {
    const int priority = Priority(word);
    if (priority == kFileOnly || TellJournal(priority, text, reader)) return;
    Tell(word, text);
}

bool SystemLog::TellJournal(int priority, const std::string& text, LogLineReader& reader) const {
    sockaddr_un address{};
    if (!journal_ || journalPath_.size() >= sizeof address.sun_path) return false;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, journalPath_.c_str(), journalPath_.size() + 1);
    const std::string fields = JournalFields(priority, text, reader);
    return sendto(journal_.Get(), fields.data(), fields.size(), MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&address), sizeof address) >= 0;
}
