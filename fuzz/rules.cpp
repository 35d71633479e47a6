// Names, patterns and texts: what matches a name matches `*`, a text comes out the same however it
// is cut, and a pattern ends in its time.
#include <cstdint>
#include <cstdlib>

#include "daemons/maild/attachments/names.h"
#include "daemons/maild/content/rule.h"
#include "daemons/maild/content/visible.h"

namespace {

std::string VisibleOf(std::string_view html, std::size_t cut) {
    maild::VisibleText visible;
    std::string text;
    visible.Write(html.substr(0, cut), text);
    visible.Write(html.substr(cut), text);
    visible.Finish(text);
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view all(reinterpret_cast<const char*>(data), size);
    const std::string_view first = all.substr(0, all.find('\n'));
    const std::string_view rest = all.substr(std::min(all.size(), first.size() + 1));
    const std::vector<std::string> readings = maild::ReadingsOfName(rest);
    const maild::NamePatterns any("*");
    const maild::NamePatterns patterns(first);
    if (!readings.empty() && !any.MatchAny(readings)) std::abort();
    if (patterns.Empty() && patterns.MatchAny(readings)) std::abort();

    const std::string visible = VisibleOf(rest, 0);
    if (visible != VisibleOf(rest, rest.size() / 2) || visible.size() > rest.size() + 1)
        std::abort();

    maild::ParsePlaces(first);
    std::string why;
    const auto pattern = maild::Pattern::Compile(std::string(first), why);
    if (pattern == nullptr) return why.empty() ? std::abort(), 0 : 0;
    maild::Matcher matcher;
    std::chrono::nanoseconds budget = std::chrono::milliseconds(50);
    pattern->Find(rest, matcher, budget);
    // One step more than it may.
    if (budget < -std::chrono::seconds(2)) std::abort();
    return 0;
}
