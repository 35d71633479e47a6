#include "daemons/maild/antispam/rspamd.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "daemons/maild/antispam/headed.h"
#include "daemons/maild/antispam/sending.h"
#include "text/ascii.h"
#include "text/printable.h"

namespace maild {

namespace {

using Json = nlohmann::json;

constexpr int kDeepest = 32;
constexpr std::size_t kMostHeaders = 20;
constexpr std::size_t kLongestName = 64;
constexpr std::size_t kLongestValue = 800;
constexpr std::size_t kMostRecipients = 200;
constexpr std::size_t kLongestField = 1000;

// Bounded before the parser builds anything.
bool TooDeep(std::string_view json) {
    int depth = 0;
    bool inText = false;
    for (std::size_t i = 0; i < json.size(); ++i) {
        const char c = json[i];
        if (inText) {
            if (c == '\\') ++i;
            inText = c != '"';
        } else if (c == '"') {
            inText = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kDeepest) return true;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return false;
}

// What a sender wrote into his message stands in there too: bytes that are no UTF-8 shall not make
// the whole answer unreadable.
std::string Readable(std::string_view json) {
    std::string text;
    text.reserve(json.size());
    while (!json.empty()) {
        const auto first = static_cast<unsigned char>(json[0]);
        const std::size_t length = first < 0x80 ? 1 : PrintableLength(json);
        if (length == 0) {
            text += '?';
            json.remove_prefix(1);
        } else {
            text += json.substr(0, length);
            json.remove_prefix(length);
        }
    }
    return text;
}

const Json* Member(const Json& object, const char* name) {
    if (!object.is_object()) return nullptr;
    const auto found = object.find(name);
    return found == object.end() ? nullptr : &*found;
}

std::optional<double> NumberIn(const Json& object, const char* name) {
    const Json* const value = Member(object, name);
    if (value == nullptr || !value->is_number()) return {};
    return ScoreOf(value->get<double>());
}

SpamAdvice AdviceOf(std::string_view action) {
    static constexpr struct {
        const char* word;
        SpamAdvice advice;
    } kWords[] = {{"no action", SpamAdvice::kNothing},   {"add header", SpamAdvice::kTag},
                  {"rewrite subject", SpamAdvice::kTag}, {"quarantine", SpamAdvice::kQuarantine},
                  {"reject", SpamAdvice::kReject},       {"discard", SpamAdvice::kReject},
                  {"greylist", SpamAdvice::kPutOff},     {"soft reject", SpamAdvice::kPutOff}};
    for (const auto& each : kWords) {
        if (EqualIgnoringCase(action, each.word)) return each.advice;
    }
    return SpamAdvice::kNothing;  // one of somebody's own: the score decides
}

// What says how the message is to be read, or who wrote it, is nobody's to change.
bool MayBeAdded(std::string_view name) {
    const bool token = std::all_of(name.begin(), name.end(), [](char c) {
        return IsLetter(c) || (c >= '0' && c <= '9') || c == '-' || c == '_';
    });
    return token && name.size() > 2 && name.size() <= kLongestName &&
           (EqualIgnoringCase(name.substr(0, 2), "X-") ||
            EqualIgnoringCase(name, "Authentication-Results"));
}

void AddHeader(MailHeaders& headers, const std::string& name, const Json& value) {
    if (headers.size() >= kMostHeaders) return;
    if (value.is_array()) {
        for (const Json& each : value) {
            if (!each.is_array()) AddHeader(headers, name, each);
        }
        return;
    }
    const Json* const inner = value.is_object() ? Member(value, "value") : &value;
    if (inner == nullptr || !inner->is_string()) return;
    const auto& text = inner->get_ref<const std::string&>();
    // A folded one becomes one line.
    std::string line;
    for (const char c : text) {
        const bool blank = c == '\r' || c == '\n' || c == '\t' || c == ' ';
        if (!blank)
            line += c;
        else if (!line.empty() && line.back() != ' ')
            line += ' ';
    }
    headers.emplace_back(name, CleanText(line, kLongestValue));
}

void AddField(std::string& text, const char* name, const std::string& value) {
    // One that has something else in it is left out: it would be another field.
    const bool plain = std::none_of(value.begin(), value.end(), [](char c) {
        return static_cast<unsigned char>(c) < ' ' || c == 0x7F;
    });
    if (plain && value.size() <= kLongestField)
        text.append(name).append(": ").append(value).append("\r\n");
}

}  // namespace

SpamOpinion ReadRspamd(std::string_view json) {
    if (TooDeep(json)) return SpamOpinion::None("the answer is none");
    const Json root = Json::parse(Readable(json), nullptr, false);
    const std::optional<double> score = NumberIn(root, "score");
    const Json* const action = Member(root, "action");
    if (!score || action == nullptr || !action->is_string())
        return SpamOpinion::None("the answer is none");
    SpamOpinion opinion;
    opinion.answered = true;
    opinion.score = *score;
    opinion.required = NumberIn(root, "required_score").value_or(0);
    opinion.action = CleanText(action->get_ref<const std::string&>(), kLongestName);
    opinion.advice = AdviceOf(opinion.action);
    // It says so too of what one of its modules has decided before the rules, whichever way.
    const Json* const skipped = Member(root, "is_skipped");
    if (skipped != nullptr && skipped->is_boolean() && skipped->get<bool>() &&
        EqualIgnoringCase(opinion.action, "no action"))
        opinion.advice = SpamAdvice::kSkip;
    if (const Json* const symbols = Member(root, "symbols"); symbols && symbols->is_object()) {
        for (const auto& [name, ignored] : symbols->items()) {
            if (opinion.symbols.size() < kMostSymbols && IsSymbol(name))
                opinion.symbols.push_back(name);
        }
    }
    const Json* const milter = Member(root, "milter");
    const Json* const added = milter == nullptr ? nullptr : Member(*milter, "add_headers");
    if (added != nullptr && added->is_object()) {
        for (const auto& [name, value] : added->items()) {
            if (MayBeAdded(name)) AddHeader(opinion.headers, name, value);
        }
    }
    return opinion;
}

std::string RspamdRequest(const SpamQuestion& question) {
    // Without keep-alive: the end of the connection is the end of the answer too.
    std::string text = "POST /checkv2 HTTP/1.1\r\nHost: rspamd\r\nConnection: close\r\n";
    text += "Content-Length: " + std::to_string(question.bytes) + "\r\n";
    if (!question.id.empty()) AddField(text, "Queue-Id", question.id);
    if (!question.peer.empty()) AddField(text, "IP", question.peer);
    if (!question.helo.empty()) AddField(text, "Helo", question.helo);
    if (question.sender) AddField(text, "From", '<' + *question.sender + '>');
    std::size_t count = 0;
    for (const std::string& each : question.recipients) {
        if (++count > kMostRecipients) break;
        AddField(text, "Rcpt", '<' + each + '>');
    }
    return text + "\r\n";
}

SpamOpinion AskRspamd(Connection& connection, const SpamQuestion& question) {
    // It may have answered before it has read all.
    const bool sent = SendMessage(connection, RspamdRequest(question), question);
    if (!sent && connection.TimedOut()) return SpamOpinion::None("it takes no message in time");
    std::string buffer;
    HeadedReply reply;
    std::string why;
    if (!ReceiveHeaded(connection, buffer, reply, why)) return SpamOpinion::None(why);
    if (!reply.status.starts_with("HTTP/1.") || reply.status.substr(8, 5) != " 200 ")
        return SpamOpinion::None("it answers " + CleanText(reply.status, kLongestName));
    if (!sent) return SpamOpinion::None("it has not taken all of the message");
    return ReadRspamd(reply.body);
}

}  // namespace maild
