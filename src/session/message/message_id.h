// The Message-ID of a message, found in its bytes as they come.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

class MessageIdFinder {
  public:
    // A message begins.
    void Begin();
    // Its next bytes, wherever reads have cut them. Sets `id` to the value of the first Message-ID
    // field of the header, printable and bounded; looks no further than the header's end, or than
    // its first 64 KiB.
    void Feed(std::string_view bytes, std::string& id) {
        if (!done_) Look(bytes, id);
    }

  private:
    void Look(std::string_view bytes, std::string& id);
    void TakeLine(std::string_view line, std::string& id);

    bool done_ = true;
    bool inValue_ = false;    // the next line may go on with it
    std::size_t looked_ = 0;  // bytes
    std::string line_;        // what has come of the line in hand
    std::string value_;
};
