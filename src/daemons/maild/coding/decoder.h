// Inside coding/: the codings of bodies, undone block by block. Two readers of one text may come to
// different bytes where it is not what the standard says; then it is odd, and the variants say who
// reads what.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "daemons/maild/coding/source.h"

namespace maild {

// What a reader of base64 does at what doesn't belong there. `=` within the text:
enum class Filler {
    kAnew,   // ends a group; what follows begins a new one
    kEnd,    // ends all
    kIgnore  // counts for nothing
};
// Any other character that is no digit:
enum class Foreign {
    kIgnore,
    kEnd,
    kUrl,  // `-` and `_` are digits, the rest counts for nothing
    kLine  // the whole line counts for nothing; whoever hands over the lines sees to it
};

class Base64Decoder {
  public:
    explicit Base64Decoder(Filler filler = Filler::kAnew, Foreign foreign = Foreign::kIgnore)
        : filler_(filler), foreign_(foreign) {}

    void Write(std::string_view text, std::string& out);
    void Finish(std::string& out);
    // Readers may differ: there are digits behind a filler, foreign characters, or a group of one
    // digit at the end.
    bool Odd() const { return odd_; }
    // A group goes on over a line's end, which is allowed; few programs write such lines, and few
    // are tried with them.
    bool Cut() const { return cut_; }

    static bool HasForeign(std::string_view line);

  private:
    void TakeOther(char c, std::string& out);
    void Flush(std::string& out);

    Filler filler_;
    Foreign foreign_;
    std::uint32_t group_ = 0;
    int digits_ = 0;
    bool filled_ = false;  // a filler was met
    bool ended_ = false;
    bool odd_ = false;
    bool lineEnded_ = false;  // within the group
    bool cut_ = false;
};

class QuotedDecoder {
  public:
    // `keepOdd`: a `=` that escapes nothing stays; else it goes. `keepBlanks`: so do blanks at the
    // end of a line, which the standard takes away.
    explicit QuotedDecoder(bool keepOdd = true, bool keepBlanks = false)
        : keepOdd_(keepOdd), keepBlanks_(keepBlanks) {}

    void Write(std::string_view text, std::string& out);
    void Finish(std::string& out);
    // Readers may differ: there is a `=` that escapes nothing, or blanks between one and the end of
    // its line.
    bool Odd() const { return odd_; }
    // The same of what is no text: blanks at the end of a line.
    bool Blanks() const { return blanksDropped_; }

  private:
    void Take(char c, std::string& out);
    void GiveUp(std::string& out);

    bool keepOdd_;
    bool keepBlanks_;
    std::string held_;    // from a '=' on
    std::string blanks_;  // at a line's end they count for nothing
    bool odd_ = false;
    bool blanksDropped_ = false;
};

// Files in uuencode within text: from "begin MODE NAME" to "end", one behind the other. Other lines
// count for nothing.
class UuDecoder {
  public:
    // Takes a line with or without its end. True if it began a file: what was decoded before is
    // another one.
    bool TakeLine(std::string_view line, std::string& out);
    bool InFile() const { return inFile_; }

    // Whether a line begins a file.
    static bool Begins(std::string_view line);

  private:
    bool inFile_ = false;
    bool base64_ = false;  // "begin-base64 MODE NAME" to "===="
};

// The same with yEnc: "=ybegin" to "=yend".
class YencDecoder {
  public:
    bool TakeLine(std::string_view line, std::string& out);
    bool InFile() const { return inFile_; }

    static bool Begins(std::string_view line);

  private:
    bool inFile_ = false;
    bool escaped_ = false;
};

}  // namespace maild
