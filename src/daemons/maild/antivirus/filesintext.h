// Inside antivirus/: the files that a text holds in uuencode or yEnc.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "daemons/maild/antivirus/questions.h"
#include "daemons/maild/coding/decoder.h"

namespace maild {

class FilesInText {
  public:
    FilesInText(Questions& questions, std::string place)
        : questions_(questions), place_(std::move(place)) {}

    void Write(std::string_view text);
    void Finish();
    bool Any() const { return any_; }
    // Of all files so far, up to a bound; the last one is that of the file that is put as a
    // question at this moment.
    const std::vector<std::string>& Names() const { return names_; }

  private:
    void TakeLine(std::string_view line);
    void Ask();

    Questions& questions_;
    const std::string place_;
    std::string begun_;  // of a line that has not ended
    UuDecoder uu_;
    YencDecoder yenc_;
    std::unique_ptr<Scratch> file_;  // the one that goes on
    std::string out_;
    std::vector<std::string> names_;
    bool any_ = false;
};

}  // namespace maild
