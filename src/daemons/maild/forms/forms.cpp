#include "daemons/maild/forms/forms.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "daemons/maild/forms/blocks.h"
#include "daemons/maild/forms/encrypted.h"

namespace {

constexpr std::string_view kSafeStarts[] = {"Received: ", "Return-Path: "};
constexpr std::string_view kHeader = "Received: from spool\r\n";

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Goes from line end to line end, so that a message costs little more than two searches a line.
class Surveyor {
  public:
    explicit Surveyor(Survey& survey) : survey_(survey) {}

    void Take(std::string_view text, long long offset) {
        for (std::size_t i = 0; i < text.size();) {
            const char c = text[i];
            if (c == '\n') {
                Mark(c);
                boundary_ = afterCr_ ? kCrLf : kLf;
                atLine_ = true;
                afterCr_ = false;
                ++i;
            } else if (c == '\r') {
                Mark(c);
                survey_.bareCr = survey_.bareCr || afterCr_;
                boundary_ = kCr;
                atLine_ = afterCr_ = true;
                ++i;
            } else {
                survey_.bareCr = survey_.bareCr || afterCr_;
                afterCr_ = false;
                if (dot_) {
                    Mark(c);
                } else if (atLine_ && c == '.') {
                    dot_ = true;
                    ++i;
                    continue;
                }
                if (atLine_ && survey_.firstArchive < 0 && MayBeginArchive(text.substr(i)))
                    survey_.firstArchive = offset + static_cast<long long>(i);
                atLine_ = false;
                i = NextLineEnd(text, i);
            }
        }
    }
    void Finish() {
        Mark('\0');
        survey_.bareCr = survey_.bareCr || afterCr_;
    }

  private:
    // The byte behind a dot at a line's start says which kind of dot that is.
    void Mark(char next) {
        if (dot_) survey_.dots |= next == '.' ? DoubledDot(boundary_) : SingleDot(boundary_);
        dot_ = false;
    }
    static std::size_t NextLineEnd(std::string_view text, std::size_t from) {
        const auto find = [&](char c, std::size_t end) {
            const void* found = std::memchr(text.data() + from, c, end - from);
            return found == nullptr
                       ? end
                       : static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
        };
        return find('\r', find('\n', text.size()));
    }

    Survey& survey_;
    LineEnd boundary_ = kCrLf;
    bool atLine_ = true;    // a line begins here, but for a dot
    bool afterCr_ = false;  // the byte before was a CR
    bool dot_ = false;      // the line so far is one dot
};

// Writes a form, byte by byte: only few messages need it.
class FormWriter {
  public:
    FormWriter(platform::File& out, const Form& form) : out_(out), form_(form) {
        buffer_.reserve(2 * kReadBlock);
    }

    bool Take(std::string_view text) {
        for (const char c : text) {
            if (dot_) {
                const unsigned kind = c == '.' ? DoubledDot(boundary_) : SingleDot(boundary_);
                dot_ = false;
                if ((form_.dots & kind) == 0) Put('.');
            } else if (atLine_ && c == '.') {
                if (afterCr_ && form_.crEndsLine) Put('\n');
                dot_ = true;
                atLine_ = afterCr_ = false;
                continue;
            }
            Step(c);
        }
        return Flush();
    }
    bool Finish() {
        if (dot_ && (form_.dots & SingleDot(boundary_)) == 0) Put('.');
        if (afterCr_ && form_.crEndsLine) Put('\n');
        return Flush();
    }

  private:
    void Step(char c) {
        if (afterCr_ && c != '\n' && form_.crEndsLine) Put('\n');
        atLine_ = c == '\n' || c == '\r';
        if (c == '\n') boundary_ = afterCr_ ? kCrLf : kLf;
        if (c == '\r') boundary_ = kCr;
        afterCr_ = c == '\r';
        Put(c);
    }
    void Put(char c) {
        if (form_.fromFirstText && !begun_ && IsBlank(c)) return;
        begun_ = true;
        buffer_.push_back(c);
    }
    bool Flush() {
        const bool written = out_.Write(buffer_.data(), buffer_.size());
        buffer_.clear();
        return written;
    }

    platform::File& out_;
    const Form form_;
    std::vector<char> buffer_;
    LineEnd boundary_ = kCrLf;
    bool atLine_ = true;
    bool afterCr_ = false;
    bool dot_ = false;
    bool begun_ = false;
};

constexpr unsigned AnyDot(LineEnd end) { return SingleDot(end) | DoubledDot(end); }
constexpr unsigned kDoubled = DoubledDot(kCrLf) | DoubledDot(kLf) | DoubledDot(kCr);

void AddForm(std::vector<Form>& forms, const Survey& survey, unsigned dots, bool crEndsLine) {
    const Form form{dots & survey.dots, crEndsLine && survey.bareCr, false};
    if (std::find(forms.begin(), forms.end(), form) == forms.end()) forms.push_back(form);
}

}  // namespace

bool SurveyMessage(int spool, Survey& survey) {
    Surveyor surveyor(survey);
    const bool read = ReadBlocks(spool, 0, [&](std::string_view text, off_t at) {
        if (at == 0) {
            for (const std::string_view start : kSafeStarts)
                survey.known = survey.known || text.starts_with(start);
            // Also where a dot in front is taken away.
            survey.indented = IsBlank(text[text.size() > 1 && text[0] == '.' ? 1 : 0]);
        }
        surveyor.Take(text, at);
        return true;
    });
    surveyor.Finish();
    return read;
}

std::vector<Form> FormsOf(const Survey& survey, Transfer transfer) {
    static constexpr struct {
        unsigned dots;
        bool crEndsLine;
        bool chunks;  // of a message by BDAT, else by DATA
    } kSets[] = {
        {AnyDot(kCrLf), false, false},
        {AnyDot(kCrLf) | AnyDot(kLf), false, false},
        {AnyDot(kCrLf) | AnyDot(kCr), true, false},
        {AnyDot(kCrLf) | AnyDot(kLf) | AnyDot(kCr), true, false},
        {0, true, true},
        {AnyDot(kLf), false, true},
        {AnyDot(kCr), true, true},
        {AnyDot(kLf) | AnyDot(kCr), true, true},
    };
    std::vector<Form> forms{Form{}};
    for (const auto& set : kSets) {
        if (transfer == (set.chunks ? Transfer::kData : Transfer::kChunks)) continue;
        AddForm(forms, survey, set.dots, set.crEndsLine);
        AddForm(forms, survey, set.dots & kDoubled, set.crEndsLine);
    }
    if (survey.indented) {
        const std::size_t count = forms.size();
        for (std::size_t i = 0; i < count; ++i) {
            forms.push_back(forms[i]);
            forms.back().fromFirstText = true;
        }
    }
    return forms;
}

platform::File MakeForm(int spool, const Form& form) {
    platform::File copy(memfd_create("scan", MFD_CLOEXEC));
    if (!copy || !copy.Write(kHeader.data(), kHeader.size())) return {};
    FormWriter writer(copy, form);
    if (!ReadBlocks(spool, 0, [&](std::string_view text, off_t) { return writer.Take(text); }) ||
        !writer.Finish() || lseek(copy.Descriptor(), 0, SEEK_SET) != 0)
        return {};
    return copy;
}
