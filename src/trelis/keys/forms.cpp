#include "trelis/keys/forms.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "net/service_address.h"
#include "text/ascii.h"
#include "text/trim.h"

namespace trelis {
namespace {

// Whether there is something between the ';'s, and all of it fits.
template <typename Fits>
bool AllFit(std::string_view list, Fits fits) {
    bool any = false;
    for (;;) {
        const std::size_t end = list.find(';');
        const std::string_view each = Trimmed(list.substr(0, end));
        if (!each.empty()) {
            if (!fits(each)) return false;
            any = true;
        }
        if (end == std::string_view::npos) return any;
        list.remove_prefix(end + 1);
    }
}

}  // namespace

std::optional<double> ParseScore(std::string_view text) {
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || rest != end || std::isnan(value)) return std::nullopt;
    return value;
}

bool IsServiceAddress(std::string_view text) { return ServiceAddress::Parse(text).has_value(); }

bool IsSpamAddress(std::string_view text) {
    constexpr std::string_view kSpamd = "spamd:";
    if (text.starts_with(kSpamd)) text.remove_prefix(kSpamd.size());
    return IsServiceAddress(text);
}

bool IsScore(std::string_view text) { return ParseScore(text).has_value(); }

bool IsPlaceList(std::string_view text) {
    return AllFit(text, [](std::string_view word) {
        constexpr std::string_view kHeader = "header:";
        if (EqualIgnoringCase(word.substr(0, kHeader.size()), kHeader))
            return !Trimmed(word.substr(kHeader.size())).empty();
        constexpr const char* kWords[] = {"sender", "recipient", "subject", "text", "html"};
        return std::any_of(std::begin(kWords), std::end(kWords),
                           [word](const char* each) { return EqualIgnoringCase(word, each); });
    });
}

bool IsTypeList(std::string_view text) {
    return AllFit(text, [](std::string_view type) {
        return type.find_first_of("/*?[") != std::string_view::npos;
    });
}

}  // namespace trelis
