// Inside content/: what a reader sees of an HTML part: without tags, comments, script and style;
// entities decoded; characters without width taken out, runs of blanks one.
#pragma once

#include <string>
#include <string_view>

namespace maild {

// Takes UTF-8 as it comes. Holds no more than one tag's name and one entity.
class VisibleText {
  public:
    // What is visible is put behind `out`.
    void Write(std::string_view html, std::string& out);
    void Finish(std::string& out);

  private:
    enum class State {
        kText,
        kEntity,
        kTagOpen,  // behind '<'
        kTag,
        kQuoted,  // within a tag's quotes
        kMarkup,  // <!
        kBogus,   // <? and the like, up to the next '>'
        kComment,
        kHidden,  // in script or style
        kRaw      // in elements whose content has no tags but their own end
    };

    void Take(char c, std::string& out);
    void TakeTag(char c, std::string& out);
    void TakeInTag(char c);
    void TakeEntity(char c, std::string& out);
    void TakeRaw(char c, std::string& out);
    void BeginTag(std::string name);
    void EndTag();
    void EndNumber(std::string_view word, std::string& out);
    // Whether it is a known one.
    bool EndEntity(std::string& out);
    void Put(std::string_view character, std::string& out);
    void PutText(char c, std::string& out);
    void Separate() { blank_ = true; }

    State state_ = State::kText;
    std::string word_;     // a tag's name, an entity, or the last bytes of a comment
    std::string held_;     // of a character that is not whole
    std::string element_;  // the one that hides what is in it, or has no tags in it
    char quote_ = 0;
    bool nameEnded_ = false;
    bool valueBegins_ = false;  // behind an attribute's '='
    bool attribute_ = false;    // its name has begun
    bool inValue_ = false;      // of an attribute, without quotes
    bool closed_ = false;       // behind a '/' at a tag's end
    bool zeros_ = false;        // in front of an entity's number
    bool blank_ = false;        // one stands before the next character
    bool any_ = false;
};

}  // namespace maild
