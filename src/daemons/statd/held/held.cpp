#include "daemons/statd/held/held.h"

#include "daemons/quarantine/outward/release.h"
#include "daemons/quarantine/outward/show.h"
#include "daemons/statd/store/text.h"
#include "daemons/statd/web/accounts.h"
#include "daemons/statd/web/html.h"
#include "platform/clock.h"
#include "text/ascii.h"
#include "text/printable.h"
#include "trelis/keys/settings.h"

namespace stats {

namespace {

constexpr char kRoot[] = "/quarantine";
constexpr char kHtml[] = "text/html; charset=utf-8";
constexpr int kMostListed = 200;
constexpr std::size_t kMostShown = 80;

HttpResponse Plain(unsigned status, const std::string& text) {
    return {status, "text/plain; charset=utf-8", CleanText(text) + "\n", {}};
}

HttpResponse SeeOther(const std::string& path) {
    HttpResponse response = Plain(303, "See " + path);
    response.headers = {{"Location", path}};
    return response;
}

bool MayLook(const std::string& account) {
    if (account == kOwnerName) return true;
    constexpr trelis::Key kKey{trelis::kStatsKey, "QuarantineAccounts/*"};
    trelis::NameWalk walk(kKey);
    for (std::string name; walk.Next(name);) {
        if (!account.empty() && trelis::ReadText(kKey, {name}) == account) return true;
    }
    return false;
}

std::string Cell(const std::string& text) {
    return "<td>" + EscapeHtml(CleanText(text, kMostShown)) + "</td>";
}

std::string Row(const quarantine::KeptMessage& message) {
    return "<tr><th scope=\"row\"><a href=\"/quarantine/" + message.id + "\">" +
           EscapeHtml(platform::UtcTimeText(message.at / 1000)) + "</a></th>" +
           Cell(message.state) + Cell(message.sender.empty() ? "<>" : message.sender) +
           Cell(message.recipients) + Cell(message.subject) + Cell(message.section) +
           Cell(message.reason) + "</tr>\n";
}

// Of a form whose fields are words of ours: letters, digits and '-' are as they are.
std::string Field(const std::string& body, const std::string& name) {
    std::size_t at = 0;
    while (at <= body.size()) {
        const std::size_t end = std::min(body.find('&', at), body.size());
        const std::string item = body.substr(at, end - at);
        if (item.starts_with(name + "=")) return item.substr(name.size() + 1);
        at = end + 1;
    }
    return {};
}

// Whether nobody has got it yet, nor may have.
bool MayGo(const quarantine::KeptMessage& message) {
    return message.state == quarantine::state::kHeld ||
           message.state == quarantine::state::kOriginal;
}

std::string Button(const std::string& action, const std::string& words) {
    return "<button name=\"action\" value=\"" + action + "\">" + words + "</button>\n";
}

}  // namespace

bool HeldPages::IsTheirs(const std::string& path) {
    return path == kRoot || path.starts_with(std::string(kRoot) + "/");
}

std::string HeldPages::TokenOf(const std::string& account) {
    const std::lock_guard lock(mutex_);
    std::string& token = tokens_[account];
    if (token.empty()) token = RandomHex(16);
    return token;
}

HttpResponse HeldPages::Answer(const HttpRequest& request, const std::string& nonce) {
    const std::string pair = DecodeBasic(request.authorization);
    const std::string account = pair.substr(0, pair.find(':'));
    if (!MayLook(account))
        return Plain(403,
                     "This account may not look into the quarantine (key QuarantineAccounts).");
    const bool list = request.path == kRoot;
    const std::string id = list ? "" : request.path.substr(sizeof kRoot);
    if (!list && !quarantine::IsId(id)) return Plain(404, "There is nothing here.");
    if (request.method == "POST")
        return list ? Plain(405, "Not in this way.") : Act(request, id, account);
    return list ? List(request.search, nonce) : Show(id, TokenOf(account), nonce);
}

std::optional<quarantine::Numbers> HeldPages::Count() {
    std::string complaint;
    return store_.Count(complaint);
}

HttpResponse HeldPages::List(const std::string& search, const std::string& nonce) {
    std::string complaint;
    const auto found = store_.List({.any = search, .limit = kMostListed}, complaint);
    if (!found) return Plain(500, "The quarantine can't be read: " + complaint);
    std::string body =
        "<h1>Quarantine</h1>\n<section><form method=\"get\" action=\"/quarantine\">"
        "<label>Sender, recipient, subject or id <input name=\"q\" value=\"" +
        EscapeHtml(CleanText(search)) + "\"></label><button>Search</button></form></section>\n";
    body += "<section>";
    if (found->empty()) {
        body += "<p class=\"dim\">Nothing is there.</p>";
    } else {
        body += "<div class=\"scroll\" tabindex=\"0\"><table>\n<thead><tr>";
        for (const char* each : {"Time", "State", "From", "To", "Subject", "Section", "Reason"})
            body += std::string("<th scope=\"col\">") + each + "</th>";
        body += "</tr></thead>\n<tbody>\n";
        for (const quarantine::KeptMessage& each : *found) body += Row(each);
        body += "</tbody>\n</table></div>";
    }
    return {200, kHtml, HtmlPage("Quarantine", nonce, body + "</section>\n", ""), {}};
}

HttpResponse HeldPages::Show(const std::string& id, const std::string& token,
                             const std::string& nonce) {
    std::string complaint;
    const auto message = store_.Find(id, complaint);
    if (!message) return Plain(404, complaint);
    const platform::File file = store_.Open(id);
    std::string body = "<h1>" + EscapeHtml(id) + "</h1>\n<section><table>\n";
    const std::pair<const char*, std::string> fields[] = {{"State", message->state},
                                                          {"From", message->sender},
                                                          {"To", message->recipients},
                                                          {"Subject", message->subject},
                                                          {"Client", message->peer},
                                                          {"Section", message->section},
                                                          {"Rule", message->rule},
                                                          {"Reason", message->reason},
                                                          {"Bytes", std::to_string(message->size)}};
    for (const auto& [name, value] : fields)
        body += std::string("<tr><th scope=\"row\">") + name + "</th><td>" +
                EscapeHtml(CleanText(value)) + "</td></tr>\n";
    body += "</table></section>\n<section>";
    std::string outcome = releaser_.Outcome(id);
    if (outcome.empty() && message->state == quarantine::state::kReleasing)
        outcome = "A release is under way, or was cut off: the server may have it.";
    if (!outcome.empty()) body += "<p>" + EscapeHtml(CleanText(outcome)) + "</p>";
    body += "<form method=\"post\" action=\"/quarantine/" + id +
            "\"><input type=\"hidden\" name=\"token\" value=\"" + token + "\">";
    if (MayGo(*message)) body += Button("release", "Release");
    body += Button("delete", "Delete") + "</form></section>\n<section><pre>" +
            EscapeHtml(file ? MessageAsText(file) : "The message can't be read.") +
            "</pre></section>\n<p><a href=\"/quarantine\">All messages</a></p>\n";
    return {200, kHtml, HtmlPage("Quarantine", nonce, body, ""), {}};
}

HttpResponse HeldPages::Act(const HttpRequest& request, const std::string& id,
                            const std::string& account) {
    const std::string token = TokenOf(account);
    if (token.empty() || !SameText(Field(request.body, "token"), token))
        return Plain(403, "The form is not from this page, or from an earlier run: load it again.");
    const std::string action = Field(request.body, "action");
    std::string complaint;
    if (action == "release") {
        const auto message = store_.Find(id, complaint);
        if (!message) return Plain(404, complaint);
        // A second click: the page says what became of the first one.
        if (MayGo(*message) && !releaser_.Add(id, account))
            return Plain(503, "Too many are being released; try again.");
        return SeeOther(std::string(kRoot) + "/" + id);
    }
    if (action != "delete") return Plain(400, "The action is release or delete.");
    if (!Delete(store_, id, {account, kThrough}, complaint)) return Plain(404, complaint);
    return SeeOther(kRoot);
}

}  // namespace stats
