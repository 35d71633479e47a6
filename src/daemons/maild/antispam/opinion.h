// antispam/: what another program thinks of a message: rspamd, or SpamAssassin's spamd. It gets the
// message as its reader will have it, block by block from the file, and answers with a score.
//
//   headed      an answer with a head of lines, as both protocols have it, within bounds
//   rspamd      HTTP, JSON
//   spamd       SpamAssassin's protocol
//   antispam    the question for one message, and whether there is somebody to answer
//   findings    what the answer comes to, by the settings
//
// This header: the question and the answer.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "daemons/maild/coding/source.h"

namespace maild {

struct SpamQuestion {
    int file = -1;
    Dots dots = Dots::kPlain;
    long long size = 0;   // bytes of the file
    long long bytes = 0;  // of the message without the dots of the way
    std::string id;       // for people, to find it in both logs; empty: none
    // Of the envelope, where it is known:
    std::optional<std::string> sender;
    std::vector<std::string> recipients;
    std::string peer;  // a number, of either family; else nothing is said of it
    std::string helo;  // what it called itself
};

// What the engine itself would do.
enum class SpamAdvice { kNothing, kSkip, kTag, kQuarantine, kReject, kPutOff };

using MailHeaders = std::vector<std::pair<std::string, std::string>>;

struct SpamOpinion {
    bool answered = false;
    std::string why;  // not answered: what happened
    double score = 0;
    double required = 0;  // from which on it takes mail for spam
    SpamAdvice advice = SpamAdvice::kNothing;
    std::string action;                // its advice in its own words
    std::vector<std::string> symbols;  // names of the rules that fit, up to kMostSymbols
    MailHeaders headers;               // what it would add, as far as that may be added

    static SpamOpinion None(std::string reason) {
        SpamOpinion none;
        none.why = std::move(reason);
        return none;
    }
};
inline constexpr std::size_t kMostSymbols = 100;
// Scores beyond are taken for this.
inline constexpr double kLargestScore = 1'000'000;

// The score within the bounds; nothing if it is no number.
std::optional<double> ScoreOf(double value);
// Whether it names a rule: letters, digits, and '_', '-', '.'.
bool IsSymbol(std::string_view text);

}  // namespace maild
