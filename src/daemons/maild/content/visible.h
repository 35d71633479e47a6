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
        kMarkup,  // <! and <?
        kComment,
        kHidden  // in script or style
    };

    void Take(char c, std::string& out);
    void TakeTag(char c, std::string& out);
    void EndTag();
    // Whether it is a known one.
    bool EndEntity(std::string& out);
    void Put(std::string_view character, std::string& out);
    void PutText(char c, std::string& out);
    void Separate() { blank_ = true; }

    State state_ = State::kText;
    std::string word_;    // a tag's name, an entity, or the last bytes of a comment
    std::string held_;    // of a character that is not whole
    std::string hidden_;  // the element that hides what is in it
    char quote_ = 0;
    bool nameEnded_ = false;
    bool blank_ = false;  // one stands before the next character
    bool any_ = false;
};

}  // namespace maild
