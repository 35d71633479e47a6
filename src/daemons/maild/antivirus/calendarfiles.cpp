#include "daemons/maild/antivirus/calendarfiles.h"

#include <algorithm>

#include "text/ascii.h"

namespace maild {

namespace {

constexpr std::size_t kLongestHead = 8192;
constexpr std::size_t kDecodeAt = 32768;
constexpr std::size_t kMostNames = 2000;

// The value of a parameter, whatever stands in front of its name, such as "X-".
std::string Parameter(std::string_view head, std::string_view name) {
    const std::string small = LowerCase(head);
    const std::size_t at = small.find(name);
    if (at == std::string::npos) return {};
    std::string_view value = head.substr(at + name.size());
    if (value.starts_with('"')) {
        value.remove_prefix(1);
        return std::string(value.substr(0, value.find('"')));
    }
    return std::string(value.substr(0, value.find(';')));
}

}  // namespace

bool CalendarFiles::MayBe(const Part& part) {
    const auto called = [](const std::string& name) {
        const std::string small = LowerCase(name);
        return small.ends_with(".ics") || small.ends_with(".vcs") || small.ends_with(".ical");
    };
    return part.type == "text/calendar" || part.type == "application/ics" ||
           part.type == "text/x-vcalendar" ||
           std::any_of(part.names.begin(), part.names.end(), called);
}

void CalendarFiles::Write(std::string_view text) {
    for (const char c : text) {
        if (c == '\n' || c == '\r') {
            lineEnded_ = true;
            continue;
        }
        const bool goesOn = lineEnded_ && (c == ' ' || c == '\t');
        if (lineEnded_ && !goesOn) {
            EndFile();
            state_ = State::kHead;
            head_.clear();
            quoted_ = false;
        }
        lineEnded_ = false;
        if (!goesOn) Take(c);
    }
}

void CalendarFiles::Take(char c) {
    switch (state_) {
        case State::kHead:
            quoted_ = quoted_ != (c == '"');
            if (c == ':' && !quoted_) return EndHead();
            head_ += c;
            if (head_.size() > kLongestHead) state_ = State::kOther;
            break;
        case State::kFile:
            digits_ += c;
            if (digits_.size() < kDecodeAt) break;
            {
                std::string out;
                decoder_.Write(digits_, out);
                if (!file_->Write(out)) questions_.Fail();
            }
            digits_.clear();
            break;
        case State::kOther:
            break;
    }
}

void CalendarFiles::EndHead() {
    state_ = State::kOther;
    const std::string coding = LowerCase(Parameter(head_, "encoding="));
    if (coding != "base64" && LowerCase(Parameter(head_, "value=")) != "binary") return;
    if (names_.size() >= kMostNames) return questions_.Stop();
    names_.push_back(Parameter(head_, "filename="));
    file_ = std::make_unique<Scratch>();
    decoder_ = Base64Decoder();
    state_ = State::kFile;
}

void CalendarFiles::EndFile() {
    if (file_ == nullptr) return;
    std::string out;
    decoder_.Write(digits_, out);
    decoder_.Finish(out);
    digits_.clear();
    if (!file_->Write(out)) questions_.Fail();
    questions_.Put(*file_, place_);
    file_.reset();
}

void CalendarFiles::Finish() { EndFile(); }

}  // namespace maild
