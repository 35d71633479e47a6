#include "daemons/statd/web/search.h"

#include <algorithm>
#include <deque>
#include <mutex>

#include "daemons/logd/reader/entry.h"
#include "daemons/logd/reader/log_files.h"
#include "daemons/statd/report/table.h"
#include "daemons/statd/web/html.h"
#include "platform/home.h"
#include "text/ascii.h"

namespace stats {
namespace {

constexpr std::size_t kMostShown = 50;
constexpr std::size_t kLeastAsked = 3;

std::string Trimmed(const std::string& text) {
    const std::size_t begin = text.find_first_not_of(" \t[");
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(" \t]") + 1 - begin);
}

const std::string& Value(const LogRecord& record, std::string_view name) {
    static const std::string empty;
    const std::string* const value = record.Find(name);
    return value != nullptr ? *value : empty;
}

bool Holds(const LogRecord& record, std::string_view name, const std::string& asked) {
    return LowerCase(Value(record, name)).find(asked) != std::string::npos;
}

// A session stands for its messages.
bool Fits(const LogRecord& record, const std::string& asked) {
    if (record.event != "session" && record.event != "message") return false;
    const std::string& session = Value(record, "session");
    if (asked == session || asked == Value(record, "id") || asked == Value(record, "peer"))
        return true;
    return record.event == "message" &&
           (asked == LowerCase(Value(record, "queue_id")) || Holds(record, "from", asked) ||
            Holds(record, "to", asked) || Holds(record, "message_id", asked));
}

struct Found {
    bool readable = false;
    std::deque<LogRecord> records;  // the newest, the oldest of them first
    std::size_t all = 0;
};

// Nothing: another search runs.
std::optional<Found> Search(const std::string& asked) {
    static std::mutex one;
    const std::unique_lock lock(one, std::try_to_lock);
    if (!lock) return std::nullopt;
    Found found;
    std::deque<LogReader> files = LogFiles(platform::HomePath("log/vtlogd.log")).OpenAll();
    found.readable = !files.empty();
    for (; !files.empty(); files.pop_front()) {
        std::string_view line;
        while (files.front().Next(line)) {
            auto record = ParseRecord(line);
            if (!record || !Fits(*record, asked)) continue;
            ++found.all;
            found.records.push_back(std::move(*record));
            if (found.records.size() > kMostShown) found.records.pop_front();
        }
    }
    return found;
}

struct Step {
    const char* field;
    const char* words;
};
// What a person asks first; the rest stands behind.
constexpr Step kOfMessage[] = {{"from", "From"},
                               {"to", "To"},
                               {"verdict", "Verdict"},
                               {"section", "Because of"},
                               {"reason", "Reason"},
                               {"reply", "Client's answer"},
                               {"queue_id", "Queue id"},
                               {"message_id", "Message-ID"},
                               {"size", "Bytes"},
                               {"peer", "Client"},
                               {"helo", "Calls itself"},
                               {"told_by", "Told by"},
                               {"tls", "TLS"},
                               {"via", "Came by"},
                               {"reception_ms", "Reception, ms"},
                               {"scan_ms", "Scan, ms"},
                               {"relay_ms", "Relay, ms"},
                               {"session", "Session"}};
constexpr Step kOfSession[] = {{"peer", "Client"},
                               {"helo", "Calls itself"},
                               {"told_by", "Told by"},
                               {"tls", "TLS"},
                               {"messages", "Messages"},
                               {"ended", "Ended"},
                               {"duration_ms", "Duration, ms"}};

std::string Story(const LogRecord& record) {
    const bool message = record.event == "message";
    const std::string& id = Value(record, message ? "id" : "session");
    std::string out = "<section><h2>" + std::string(message ? "Message " : "Session ") +
                      EscapeHtml(id) + "</h2>\n<p class=\"dim\"><time datetime=\"" +
                      EscapeHtml(record.time) + "\">" + EscapeHtml(record.time) +
                      "</time></p>\n<dl class=\"story\">\n";
    const auto add = [&](const Step& step) {
        const std::string& value = Value(record, step.field);
        if (!value.empty())
            out += std::string("<div><dt>") + step.words + "</dt><dd>" + EscapeHtml(value) +
                   "</dd></div>\n";
    };
    if (message)
        std::for_each(std::begin(kOfMessage), std::end(kOfMessage), add);
    else
        std::for_each(std::begin(kOfSession), std::end(kOfSession), add);
    return out + "</dl></section>\n";
}

std::optional<std::string> Result(const std::string& asked) {
    if (asked.size() < kLeastAsked)
        return "<p>Three characters at least: an id, an address, a client, a Message-ID or a "
               "queue id.</p>\n";
    const std::optional<Found> searched = Search(asked);
    if (!searched) return std::nullopt;
    const Found& found = *searched;
    if (!found.readable) return "<p>The log can't be read: does vtlogd run?</p>\n";
    if (found.all == 0)
        return "<p>Nothing in the log for <strong>" + EscapeHtml(asked) + "</strong>.</p>\n";
    std::string out =
        "<p>" + std::to_string(found.all) + (found.all == 1 ? " line" : " lines") + " of the log" +
        (found.all > kMostShown ? ", the newest " + std::to_string(kMostShown) + " of them" : "") +
        ", the newest first.</p>\n";
    for (auto record = found.records.rbegin(); record != found.records.rend(); ++record)
        out += Story(*record);
    return out;
}

}  // namespace

std::string SearchForm(const std::string& asked) {
    return "<section><h2>Find a message</h2>\n<form method=\"get\" action=\"/find\" "
           "role=\"search\">\n<label>Id, address, client, Message-ID or queue id <input "
           "name=\"q\" type=\"search\" maxlength=\"200\" autocomplete=\"off\" value=\"" +
           EscapeHtml(asked) +
           "\"></label>\n<button type=\"submit\">Find</button>\n</form>"
           "</section>\n";
}

std::optional<std::string> SearchPage(const std::string& asked, const std::string& nonce) {
    const std::optional<std::string> result = Result(LowerCase(Trimmed(asked)));
    if (!result) return std::nullopt;
    return HtmlPage("Vantrel: find a message", nonce,
                    "<p><a href=\"/\">Statistics</a></p>\n<h1>Find a message</h1>\n" +
                        SearchForm(asked) + *result,
                    "");
}

}  // namespace stats
