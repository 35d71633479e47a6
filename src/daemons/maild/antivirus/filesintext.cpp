#include "daemons/maild/antivirus/filesintext.h"

namespace maild {

namespace {

// Longer lines are of no such file.
constexpr std::size_t kLongestLine = 4096;
constexpr std::size_t kWriteAt = 32768;
constexpr std::size_t kMostNames = 2000;

// "begin 644 NAME", "begin-base64 644 NAME", "=ybegin ... name=NAME".
std::string NameIn(std::string_view line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
    constexpr std::string_view kYencName = " name=";
    if (line.starts_with('=')) {
        const std::size_t at = line.find(kYencName);
        return at == std::string_view::npos ? "" : std::string(line.substr(at + kYencName.size()));
    }
    const std::size_t mode = line.find(' ');
    const std::size_t name = line.find_first_not_of("01234567 ", std::min(mode, line.size()));
    const std::size_t behindMode = line.find(' ', line.find_first_not_of(' ', mode));
    if (mode == std::string_view::npos || behindMode == std::string_view::npos)
        return name == std::string_view::npos ? "" : std::string(line.substr(name));
    const std::size_t begin = line.find_first_not_of(' ', behindMode);
    return begin == std::string_view::npos ? "" : std::string(line.substr(begin));
}

}  // namespace

void FilesInText::Write(std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view piece = text.substr(0, end);
        if (end == std::string_view::npos) {
            if (begun_.size() <= kLongestLine) begun_ += piece;
            return;
        }
        if (begun_.empty()) {
            TakeLine(piece);
        } else {
            if (begun_.size() <= kLongestLine) begun_ += piece;
            TakeLine(begun_);
            begun_.clear();
        }
        text.remove_prefix(end + 1);
    }
}

void FilesInText::TakeLine(std::string_view line) {
    const bool inFile = uu_.InFile() || yenc_.InFile();
    if (!inFile && !line.starts_with("begin") && !line.starts_with("=ybegin")) return;
    if (line.size() > kLongestLine) return;
    // One that begins within another is a file by itself, too.
    if (UuDecoder::Begins(line) || YencDecoder::Begins(line)) {
        Ask();
        uu_ = UuDecoder();
        yenc_ = YencDecoder();
        file_ = std::make_unique<Scratch>();
        if (names_.size() < kMostNames) {
            names_.push_back(NameIn(line));
        } else {
            questions_.Stop();
        }
        any_ = true;
    }
    if (!yenc_.InFile()) uu_.TakeLine(line, out_);
    if (!uu_.InFile()) yenc_.TakeLine(line, out_);
    if (out_.size() >= kWriteAt && file_ != nullptr) {
        file_->Write(out_);
        out_.clear();
    }
    if (!uu_.InFile() && !yenc_.InFile()) Ask();
}

void FilesInText::Ask() {
    if (file_ != nullptr) {
        file_->Write(out_);
        questions_.Put(*file_, place_);
    }
    file_.reset();
    out_.clear();
}

void FilesInText::Finish() {
    if (!begun_.empty()) TakeLine(begun_);
    begun_.clear();
    Ask();
}

}  // namespace maild
