// attachments/: the rules on attachments, by name, declared type, the type that the bytes show, and
// size; also of what lies in archives.
//
// This header: names and patterns in a form in which they can be compared.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace maild {

// What systems may make of one declared name when it is shown or saved, each reading once:
// full-width and other compatibility letters as plain ones, case folded; as it is, and without
// characters that don't show (controls, directions, zero width) and without blanks and dots at its
// end; with its folders and without; cut where a zero byte or a colon ends it for some. Bytes that
// are no UTF-8 don't disturb it.
std::vector<std::string> ReadingsOfName(std::string_view name);

// Shell patterns, ';' between two: `*` any run of characters, `?` one, `[a-c]` and `[!a-c]` one of
// those; a `\` takes the next one as it is. Case and compatibility letters count for nothing.
class NamePatterns {
  public:
    NamePatterns() = default;
    explicit NamePatterns(std::string_view text);

    bool Empty() const { return patterns_.empty(); }
    // Whether any of them matches the whole of a text, which is folded as ReadingsOfName does.
    bool Match(std::string_view folded) const;
    bool MatchAny(const std::vector<std::string>& folded) const;
    // Whether each of them is one of these texts, without a wildcard.
    bool AllAmong(std::span<const std::string_view> folded) const;

  private:
    std::vector<std::u32string> patterns_;
};

// Case folded, compatibility letters as plain ones, what is no UTF-8 replaced.
std::string FoldText(std::string_view text);

// What stands behind its folders, for people.
std::string ShownName(std::string_view path);

}  // namespace maild
