#include "daemons/quarantine/outward/trace.h"

#include "logclient/line.h"
#include "logclient/logclient.h"
#include "platform/clock.h"
#include "text/mailbox.h"

namespace {

constexpr std::size_t kMostRecipientBytes = 4096;

std::string Recipients(std::string text) {
    if (text.size() <= kMostRecipientBytes) return text;
    text.resize(kMostRecipientBytes);
    return text + "...";
}

}  // namespace

void LogAct(const quarantine::KeptMessage& message, const char* act, const Actor& actor,
            const std::string& to, bool done, const std::string& said) {
    if (!LogClientTakesLines()) return;
    const std::string sender = Mailbox(message.sender);
    std::string text;
    LogLineWriter line(text, LogLineKind::kQuarantine, platform::UtcMilliseconds());
    line.Text(message.id);
    line.Text(message.logId);
    line.Text(act);
    line.Text(done ? "done" : "failed");
    line.Text(actor.name);
    line.Text(actor.through);
    line.Text(sender.empty() ? "<>" : sender);
    line.Text(Recipients(to.empty() ? message.recipients : to));
    line.Text(said);
    line.End();
    LogClientLine(text);
}
