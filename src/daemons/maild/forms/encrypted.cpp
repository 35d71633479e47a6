#include "daemons/maild/forms/encrypted.h"

#include <algorithm>
#include <cstdint>
#include <memory>

#include "daemons/maild/coding/scratch.h"
#include "daemons/maild/forms/archivelook.h"
#include "daemons/maild/forms/blocks.h"
#include "daemons/maild/forms/sevenzip.h"
#include "text/base64.h"

namespace {

// What the first bytes of an archive are in base64, as far as they decide all of a character.
constexpr std::string_view kStarts[] = {"UEsDB", "N3q8rycc", "UmFyIRoH", "JVBER"};
constexpr std::string_view kSevenZip = kStarts[1];
constexpr std::size_t kLongestStart = 8;

// Between the characters of a coded part, or in front of its first line.
bool IsSkipped(char c) { return c == '.' || c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

class Search {
  public:
    explicit Search(std::vector<EncryptedPart>& parts) : parts_(parts) {}

    void Take(std::string_view text, long long offset) {
        for (std::size_t i = 0; i < text.size(); ++i)
            Take(text[i], offset + static_cast<long long>(i));
    }
    void Finish(long long end) {
        if (state_ == State::kInPart) EndPart(end);
    }

  private:
    enum class State { kLineStart, kInLine, kInPart };

    void Take(char c, long long at) {
        switch (state_) {
            case State::kLineStart:
                if (!IsSkipped(c)) {
                    start_ += c;
                    if (start_.size() == 1) part_.begin = at;
                    Compare();
                } else if (!start_.empty()) {
                    state_ = c == '\n' || c == '\r' ? State::kLineStart : State::kInLine;
                    start_.clear();
                }
                break;
            case State::kInLine:
                if (c == '\n' || c == '\r') state_ = State::kLineStart;
                break;
            case State::kInPart:
                if (const int digit = Base64Digit(c); digit >= 0) {
                    Decode(digit);
                } else if (!IsSkipped(c)) {
                    EndPart(at);
                }
                break;
        }
    }
    void Compare() {
        bool possible = false;
        for (const std::string_view start : kStarts) {
            if (start == start_) return BeginPart();
            possible = possible || start.starts_with(start_);
        }
        if (possible) return;
        start_.clear();
        state_ = State::kInLine;
    }
    void BeginPart() {
        state_ = State::kInPart;
        look_ = ArchiveLook();
        group_ = 0;
        digits_ = 0;
        sevenZip_ = start_ == kSevenZip ? std::make_unique<maild::Scratch>() : nullptr;
        for (const char c : start_) Decode(Base64Digit(c));
        start_.clear();
    }
    void Decode(int digit) {
        group_ = group_ << 6 | static_cast<std::uint32_t>(digit);
        if (++digits_ < 4) return;
        for (const int shift : {16, 8, 0})
            TakeByte(static_cast<unsigned char>(group_ >> shift & 0xFF));
        group_ = 0;
        digits_ = 0;
    }
    void TakeByte(unsigned char byte) {
        look_.Take(byte);
        const char c = static_cast<char>(byte);
        if (sevenZip_ != nullptr) sevenZip_->Write({&c, 1});
    }
    void EndPart(long long at) {
        state_ = State::kInLine;
        // A last group cut short holds one byte or two.
        if (digits_ >= 2) TakeByte(static_cast<unsigned char>(group_ >> (6 * digits_ - 8) & 0xFF));
        if (digits_ == 3) TakeByte(static_cast<unsigned char>(group_ >> 2 & 0xFF));
        part_.end = at;
        part_.kind = look_.Kind();
        part_.counts = look_.Counts();
        part_.whole = look_.Whole();
        if (sevenZip_ != nullptr && part_.kind.empty() && SevenZipEncrypted(sevenZip_->Rewind())) {
            part_.kind = "7z";
            part_.whole = true;
        }
        sevenZip_.reset();
        if (!part_.kind.empty()) parts_.push_back(part_);
    }

    std::vector<EncryptedPart>& parts_;
    State state_ = State::kLineStart;
    std::string start_;  // of the line, as long as it may become a part
    EncryptedPart part_;
    ArchiveLook look_;
    std::unique_ptr<maild::Scratch> sevenZip_;  // its bytes
    std::uint32_t group_ = 0;
    int digits_ = 0;
};

}  // namespace

bool MayBeginArchive(std::string_view line) {
    // Nearly every line ends the question with its first byte.
    if (line.empty() || (line[0] != 'U' && line[0] != 'N' && line[0] != 'J')) return false;
    const std::string_view begin = line.substr(0, kLongestStart);
    return std::any_of(std::begin(kStarts), std::end(kStarts), [&](std::string_view start) {
        return begin.substr(0, start.size()) == start.substr(0, begin.size());
    });
}

bool FindEncrypted(int file, long long from, std::vector<EncryptedPart>& parts) {
    Search search(parts);
    long long end = from;
    const bool read = ReadBlocks(file, from, [&](std::string_view text, off_t at) {
        search.Take(text, at);
        end = at + static_cast<long long>(text.size());
        return true;
    });
    if (read) search.Finish(end);
    return read;
}
