#include "daemons/maild/content/rule.h"

#include "text/ascii.h"

namespace maild {

namespace {

std::string_view Trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

bool AddPlace(Places& places, std::string_view word) {
    constexpr std::string_view kHeader = "header:";
    const std::string small = LowerCase(word);
    if (small.starts_with(kHeader)) {
        const std::string_view name = Trim(std::string_view(small).substr(kHeader.size()));
        if (name.empty()) return false;
        places.headers.emplace_back(name);
        return true;
    }
    struct {
        const char* word;
        bool Places::*place;
    } static constexpr kWords[] = {{"sender", &Places::sender},
                                   {"recipient", &Places::recipient},
                                   {"subject", &Places::subject},
                                   {"text", &Places::text},
                                   {"html", &Places::html}};
    for (const auto& each : kWords) {
        if (small != each.word) continue;
        places.*each.place = true;
        return true;
    }
    return false;
}

}  // namespace

std::optional<Places> ParsePlaces(std::string_view words) {
    Places places;
    bool any = false;
    while (!words.empty()) {
        const std::size_t end = words.find(';');
        const std::string_view word = Trim(words.substr(0, end));
        if (!word.empty()) {
            if (!AddPlace(places, word)) return std::nullopt;
            any = true;
        }
        if (end == std::string_view::npos) break;
        words.remove_prefix(end + 1);
    }
    return any ? std::optional(places) : std::nullopt;
}

}  // namespace maild
