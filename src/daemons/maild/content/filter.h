// Inside content/: the section of a message's walk that asks the rules about its envelope, its
// headers and its text parts.
//
// A text is looked at in windows of 256 KiB that overlap by 16 KiB: what a pattern has to match
// must be no longer than that where it lies across the end of a window. `^` and `$` alone are the
// text's ends, however many windows it has. Rules are asked in their order, and the first one that
// matches decides.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "daemons/maild/coding/text.h"
#include "daemons/maild/content/rule.h"
#include "daemons/maild/content/visible.h"
#include "daemons/maild/walk/part.h"

namespace maild {

struct Envelope {
    std::string sender;
    std::string recipients;  // joined by ';'
};

class ContentFilter final : public PartSink {
  public:
    static constexpr std::size_t kWindow = 256 << 10;
    static constexpr std::size_t kOverlap = 16 << 10;
    // Of the thread's computing, for each rule and message.
    static constexpr std::chrono::milliseconds kBudget{1000};

    // The rules outlive it. It may see several walks of one message.
    ContentFilter(const ContentRules& rules, const Envelope& envelope,
                  std::chrono::steady_clock::time_point end);

    void Headers(std::span<const HeaderField> fields, const std::string& place) override;
    void Begin(const Part& part) override;
    void Data(std::span<const std::byte> bytes) override;
    void End(const Part& part) override;
    void Done(const WalkResult&) override {
        again_ = true;
        decodedAgain_ = 0;
    }

    // Behind the walk: of the rule that decides; of one that removes, each part.
    std::vector<Finding> Findings() const;
    // Why not all rules were asked about everything; empty: they were.
    const std::string& TooComplex() const { return tooComplex_; }

  private:
    struct Window {
        std::string text;
        bool first = true;
    };
    struct Met {
        std::string where;
        std::string place;
        bool stored = true;  // in the message as it lies in its file
    };
    struct State {
        std::chrono::nanoseconds budget = kBudget;
        bool skipped = false;
    };

    template <typename Wanted>
    void Ask(std::string_view text, const std::string& where, const std::string& place,
             const Wanted& wanted, bool first = true, bool last = true);
    void Meet(std::size_t rule, const std::string& where, const std::string& place);
    bool Removes(std::size_t rule) const { return rules_.rules[rule].action == Action::kRemove; }
    void Look(Window& window, bool Places::*place, const char* where, bool last);
    void Take(std::string_view text);
    void EndText();
    void LookAtReadings(const Part& part);

    const ContentRules& rules_;
    const std::chrono::steady_clock::time_point end_;
    std::vector<State> states_;
    Matcher matcher_;
    std::optional<std::size_t> found_;  // the first rule that has matched
    std::vector<Met> met_;              // where; the first place alone, but for a removal
    bool again_ = false;                // this walk isn't the first one
    std::string tooComplex_;
    long long decodedAgain_ = 0;  // bytes
    bool ofBodies_ = false;       // any rule looks at parts
    // Of the text part that is open:
    std::optional<Utf8Stream> stream_;
    std::optional<VisibleText> visible_;  // of HTML
    std::string open_;                    // its place
    Window text_;
    Window html_;
};

}  // namespace maild
