// Inside walk/: the headers of one message or part, from their lines to what they say of the body.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "daemons/maild/walk/ambiguity.h"
#include "daemons/maild/walk/part.h"

namespace maild {

// What the headers say, with every reading that matters.
struct Declared {
    Part part;  // without place, depth and ranges
    std::vector<Ambiguous> ambiguities;
    bool tooLong = false;  // headers that nobody would write
};

// Collects the lines of one block of headers.
class HeaderBlock {
  public:
    // What a part is where it says nothing itself: in a digest a message.
    explicit HeaderBlock(bool inDigest = false) : inDigest_(inDigest) {}

    // A line without its end. The empty line behind the headers is not handed over. False if there
    // are more headers than anybody would write.
    bool AddLine(std::string_view line);
    // What goes on of a line that is longer than a block.
    void AddToLine(std::string_view piece);
    long long Bytes() const { return bytes_; }

    Declared Read() const;
    // All of them, decoded.
    std::vector<HeaderField> Fields() const;

  private:
    struct Field {
        std::string name;   // as written, without blanks before the colon
        std::string value;  // its lines as they are, line feeds between them
    };
    // One value of a header that may be there once.
    struct Once {
        std::string value;  // unfolded
        bool two = false;   // there is another one that says something else
    };
    Once Find(std::string_view name) const;
    bool SameTexts() const;
    bool NoCodings() const;
    void ReadType(Declared& declared) const;
    void ReadCoding(Declared& declared) const;
    void ReadDisposition(Declared& declared) const;
    void ReadNames(Declared& declared) const;
    bool HasControls() const;

    bool inDigest_;
    std::vector<Field> fields_;
    long long bytes_ = 0;
    bool inField_ = false;  // the last line was a header, or went on with one
    bool nul_ = false;
    bool bareCr_ = false;
    bool foldedOddly_ = false;  // seen, but harmless until a header of the body's follows
    bool broken_ = false;       // the same with a line that is no header
    bool ofBody_ = false;       // a header of the body's was met
    bool odd_ = false;          // a header of the body's followed, or is odd itself
    bool oddBreak_ = false;     // as broken_, beside a header of the body's
};

}  // namespace maild
