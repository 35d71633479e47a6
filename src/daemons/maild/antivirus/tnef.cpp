#include "daemons/maild/antivirus/tnef.h"

#include <algorithm>

namespace maild {

namespace {

constexpr std::size_t kStartSize = 6;
constexpr std::size_t kHeadSize = 9;
constexpr std::uint64_t kChecksumSize = 2;
constexpr std::uint32_t kAttachmentFile = 0x0006800F;
constexpr std::uint32_t kAttachmentProperties = 0x00069005;
constexpr int kMostNesting = 5;

std::uint32_t Number(std::string_view bytes) {
    std::uint32_t number = 0;
    for (std::size_t i = 4; i-- > 0;) number = number << 8 | static_cast<unsigned char>(bytes[i]);
    return number;
}

}  // namespace

void TnefReader::Write(std::string_view bytes) {
    while (!bytes.empty()) {
        if (state_ == State::kContent || state_ == State::kChecksum) {
            const auto count =
                static_cast<std::size_t>(std::min<std::uint64_t>(left_, bytes.size()));
            if (state_ == State::kContent) TakeContent(bytes.substr(0, count));
            bytes.remove_prefix(count);
            left_ -= count;
            if (left_ > 0) return;
            if (state_ == State::kContent) {
                EndAttribute();
                state_ = State::kChecksum;
                left_ = kChecksumSize;
            } else {
                state_ = State::kHead;
            }
            continue;
        }
        const std::size_t wanted = state_ == State::kStart ? kStartSize : kHeadSize;
        const std::size_t count = std::min(wanted - head_.size(), bytes.size());
        head_ += bytes.substr(0, count);
        bytes.remove_prefix(count);
        if (head_.size() < wanted) return;
        if (state_ == State::kHead) BeginAttribute();
        if (state_ == State::kStart) state_ = State::kHead;
        head_.clear();
    }
}

void TnefReader::BeginAttribute() {
    const std::string_view head = head_;
    id_ = Number(head.substr(1));
    left_ = Number(head.substr(5));
    state_ = State::kContent;
    const bool wanted = id_ == kAttachmentFile || id_ == kAttachmentProperties;
    if (wanted && questions_.Going()) file_ = std::make_unique<Scratch>();
    window_.clear();
    if (left_ > 0) return;
    EndAttribute();
    state_ = State::kChecksum;
    left_ = kChecksumSize;
}

void TnefReader::TakeContent(std::string_view bytes) {
    if (file_ == nullptr) return;
    if (!file_->Write(bytes)) questions_.Fail();
    if (id_ != kAttachmentProperties || nesting_ >= kMostNesting) return;
    if (inner_ != nullptr) return inner_->Write(bytes);
    window_ += bytes;
    const std::size_t mark = window_.find(kMark);
    if (mark != std::string::npos) {
        inner_ = std::make_unique<TnefReader>(questions_, place_, nesting_ + 1);
        inner_->Write(std::string_view(window_).substr(mark));
        window_.clear();
    } else if (window_.size() >= kMark.size()) {
        window_.erase(0, window_.size() - kMark.size() + 1);
    }
}

void TnefReader::EndAttribute() {
    if (inner_ != nullptr) inner_->Finish();
    inner_.reset();
    if (file_ != nullptr) questions_.Put(*file_, place_);
    file_.reset();
}

void TnefReader::Finish() {
    if (state_ == State::kContent) EndAttribute();
}

}  // namespace maild
