#include "daemons/maild/antivirus/zipbehind.h"

#include <algorithm>

namespace maild {

namespace {

using namespace std::string_view_literals;

constexpr std::string_view kFile = "PK\3\4"sv;
constexpr std::string_view kEnd = "PK\5\6"sv;
// Behind its mark the directory's end has so many bytes, and a comment as long as this.
constexpr long long kMostBehindEnd = 22 + 0xFFFF;

}  // namespace

// Text comes line by line, and holds nothing of a mark but letters.
bool ZipBehind::HoldsNone(std::string_view bytes) {
    if (zip_ != nullptr || bytes.size() < kFile.size() || bytes.find(kFile[2]) != bytes.npos ||
        joined_.find(kFile[0]) != std::string::npos)
        return false;
    joined_ = bytes.substr(bytes.size() - (kFile.size() - 1));
    size_ += static_cast<long long>(bytes.size());
    return true;
}

bool ZipBehind::Write(std::string_view bytes) {
    if (beginsSo_) return true;
    if (HoldsNone(bytes)) return true;
    const long long from = size_ - static_cast<long long>(joined_.size());
    joined_ += bytes;
    size_ += static_cast<long long>(bytes.size());
    bool kept = true;
    if (zip_ != nullptr) {
        kept = zip_->Write(bytes);
    } else if (const std::size_t begin = joined_.find(kFile); begin != std::string::npos) {
        beginsSo_ = from == 0 && begin == 0;
        if (beginsSo_) return true;
        zip_ = std::make_unique<Scratch>();
        kept = zip_->Write(std::string_view(joined_).substr(begin));
    }
    if (const std::size_t end = zip_ == nullptr ? std::string::npos : joined_.rfind(kEnd);
        end != std::string::npos)
        endAt_ = from + static_cast<long long>(end);
    joined_.erase(0, joined_.size() - std::min(joined_.size(), kFile.size() - 1));
    return kept;
}

Scratch* ZipBehind::Finish() {
    return endAt_ >= 0 && size_ - endAt_ <= kMostBehindEnd ? zip_.get() : nullptr;
}

}  // namespace maild
