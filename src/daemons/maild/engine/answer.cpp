#include "daemons/maild/engine/answer.h"

#include <algorithm>

#include "text/ascii.h"
#include "text/printable.h"

namespace {

constexpr std::string_view kOk = ": OK";
constexpr std::string_view kFound = " FOUND";
// The names of the engine's own findings that are no viruses.
constexpr std::string_view kOverLimit = "Heuristics.Limits.Exceeded";
constexpr std::string_view kEncrypted = "Heuristics.Encrypted.";
constexpr std::size_t kLongestText = 300;  // of what is shown of nonsense

// By which it calls what it was given: "stream", or "fd[" digits "]".
bool IsOurs(std::string_view name) {
    if (name == "stream") return true;
    if (!name.starts_with("fd[") || !name.ends_with(']')) return false;
    name = name.substr(3, name.size() - 4);
    return !name.empty() &&
           std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

ScanResult ReadAnswer(std::string_view answer) {
    if (answer.ends_with(kOk) && IsOurs(answer.substr(0, answer.size() - kOk.size())))
        return {ScanOutcome::kClean, ""};
    const std::string text = CleanText(answer, kLongestText);
    if (answer.ends_with(kFound)) {
        const std::size_t start = answer.find(": ");
        std::string_view name = answer.substr(start == std::string_view::npos ? 0 : start + 2);
        name.remove_suffix(std::min(kFound.size(), name.size()));
        if (name.starts_with(kOverLimit)) return {ScanOutcome::kTooBig, CleanText(name)};
        // "Clean as far as anybody can look" is believed as "clean" is.
        if (name.starts_with(kEncrypted))
            return IsOurs(answer.substr(0, start))
                       ? ScanResult{ScanOutcome::kEncrypted, CleanText(name)}
                       : ScanResult{ScanOutcome::kFailed, text};
        return {ScanOutcome::kInfected, CleanText(name)};
    }
    if (answer.find("size limit exceeded") != std::string_view::npos)
        return {ScanOutcome::kTooBig, text};
    return {ScanOutcome::kFailed, text};
}
