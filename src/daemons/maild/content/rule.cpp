#include "daemons/maild/content/rule.h"

#include "text/ascii.h"
#include "text/trim.h"

namespace maild {

namespace {

bool AddPlace(Places& places, std::string_view word) {
    constexpr std::string_view kHeader = "header:";
    const std::string small = LowerCase(word);
    if (small.starts_with(kHeader)) {
        const std::string_view name = Trimmed(std::string_view(small).substr(kHeader.size()));
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
        const std::string_view word = Trimmed(words.substr(0, end));
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
