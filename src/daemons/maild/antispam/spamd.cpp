#include "daemons/maild/antispam/spamd.h"

#include <algorithm>
#include <charconv>

#include "daemons/maild/antispam/sending.h"
#include "text/ascii.h"
#include "text/printable.h"

namespace maild {

namespace {

constexpr std::size_t kLongestText = 64;

std::string_view Trimmed(std::string_view text) {
    while (!text.empty() && static_cast<unsigned char>(text.front()) <= ' ') text.remove_prefix(1);
    while (!text.empty() && static_cast<unsigned char>(text.back()) <= ' ') text.remove_suffix(1);
    return text;
}

std::optional<double> Number(std::string_view text) {
    text = Trimmed(text);
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return {};
    return ScoreOf(value);
}

}  // namespace

SpamOpinion ReadSpamd(const HeadedReply& reply) {
    // "SPAMD/1.1 0 EX_OK": the number is 0 for an answer.
    const std::size_t blank = reply.status.find(' ');
    if (!reply.status.starts_with("SPAMD/") || blank == std::string_view::npos ||
        !reply.status.substr(blank).starts_with(" 0 "))
        return SpamOpinion::None("it answers " + CleanText(reply.status, kLongestText));
    const std::string_view spam = reply.Field("Spam");
    const std::size_t semicolon = spam.find(';');
    const std::size_t slash = spam.find('/', semicolon);
    if (semicolon == std::string_view::npos || slash == std::string_view::npos)
        return SpamOpinion::None("the answer is none");
    const std::string_view word = Trimmed(spam.substr(0, semicolon));
    const bool yes = EqualIgnoringCase(word, "True") || EqualIgnoringCase(word, "Yes");
    const bool no = EqualIgnoringCase(word, "False") || EqualIgnoringCase(word, "No");
    const auto score = Number(spam.substr(semicolon + 1, slash - semicolon - 1));
    const auto required = Number(spam.substr(slash + 1));
    if (!score || !required || yes == no) return SpamOpinion::None("the answer is none");
    SpamOpinion opinion;
    opinion.answered = true;
    opinion.score = *score;
    opinion.required = *required;
    opinion.advice = yes ? SpamAdvice::kTag : SpamAdvice::kNothing;
    opinion.action = yes ? "spam" : "no spam";
    for (std::string_view rest = reply.body; !rest.empty();) {
        const std::string_view name = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(name.size() + 1, rest.size()));
        if (opinion.symbols.size() < kMostSymbols && IsSymbol(Trimmed(name)))
            opinion.symbols.emplace_back(Trimmed(name));
    }
    return opinion;
}

SpamOpinion AskSpamd(Connection& connection, const SpamQuestion& question) {
    const std::string front =
        "SYMBOLS SPAMC/1.5\r\nContent-length: " + std::to_string(question.bytes) + "\r\n\r\n";
    const bool sent = SendMessage(connection, front, question);
    if (!sent && connection.TimedOut()) return SpamOpinion::None("it takes no message in time");
    std::string buffer;
    HeadedReply reply;
    std::string why;
    if (!ReceiveHeaded(connection, buffer, reply, why)) return SpamOpinion::None(why);
    if (!sent) return SpamOpinion::None("it has not taken all of the message");
    return ReadSpamd(reply);
}

}  // namespace maild
