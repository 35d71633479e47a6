// Inside antivirus/: the files that a calendar's entry has in its lines, in base64, and that mail
// programs show as attachments of an invitation:
//
//   ATTACH;ENCODING=BASE64;VALUE=BINARY;X-FILENAME=a.zip:UEsDB...
//
// A line goes on in the next one if that begins with a blank.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "daemons/maild/antivirus/questions.h"
#include "daemons/maild/coding/decoder.h"
#include "daemons/maild/walk/part.h"

namespace maild {

class CalendarFiles {
  public:
    CalendarFiles(Questions& questions, std::string place)
        : questions_(questions), place_(std::move(place)) {}

    // By its type, or by one of its names.
    static bool MayBe(const Part& part);

    void Write(std::string_view text);
    void Finish();
    // Of all files so far, up to a bound; the last one is that of the file that is put as a
    // question at this moment. Empty where a file has none.
    const std::vector<std::string>& Names() const { return names_; }

  private:
    enum class State { kHead, kFile, kOther };

    void Take(char c);
    void EndHead();
    void EndFile();

    Questions& questions_;
    const std::string place_;
    State state_ = State::kHead;
    bool lineEnded_ = false;  // whether it goes on is not known yet
    bool quoted_ = false;
    std::string head_;  // of the line, up to its colon
    std::string digits_;
    Base64Decoder decoder_;
    std::unique_ptr<Scratch> file_;
    std::vector<std::string> names_;
};

}  // namespace maild
