// Inside actions/: changes to a stored message, and the file that they make.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "daemons/maild/coding/source.h"
#include "platform/file.h"

namespace maild {

// What stands in the place of a range of the stored file; an empty range is a place.
struct Edit {
    Range range;
    std::string text;  // as it is stored
};

// Lines as a message is stored: those that begin with a dot get one more for the way. `text` begins
// at a line's start.
std::string Stuffed(std::string_view text, Dots dots);

// Sorted by their places. What lies within a larger one has no say.
class Edits {
  public:
    void Add(Edit edit);
    bool Empty() const { return edits_.empty(); }
    // Copies the file with the edits done. False if something can't be read or written.
    bool Apply(int file, long long size, platform::File& to) const;

  private:
    std::vector<Edit> edits_;
};

// Puts the edited message in the place of the stored one: a new file beside it, with its modes and
// group, which takes its name in one step. `file` is that of the path, open; one that has lost its
// name meanwhile, because nobody waits for it any more, gets no successor. False: nothing has
// changed, and `why` says what failed.
bool ReplaceStored(const std::string& path, int file, const Edits& edits, std::string& why);

}  // namespace maild
