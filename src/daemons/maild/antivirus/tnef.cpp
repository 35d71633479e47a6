#include "daemons/maild/antivirus/tnef.h"

#include <unistd.h>

#include <algorithm>
#include <span>

#include "daemons/maild/coding/text.h"
#include "daemons/maild/coding/words.h"
#include "daemons/maild/forms/blocks.h"

namespace maild {

namespace {

using namespace std::string_view_literals;

constexpr std::size_t kStartSize = 6;
constexpr std::size_t kHeadSize = 9;
constexpr std::uint64_t kChecksumSize = 2;
constexpr std::uint32_t kAttachmentBegin = 0x00069002;
constexpr std::uint32_t kAttachmentTitle = 0x00018010;
constexpr std::uint32_t kAttachmentFile = 0x0006800F;
constexpr std::uint32_t kAttachmentProperties = 0x00069005;
constexpr int kMostNesting = 5;
constexpr std::size_t kMostNames = 2000;
constexpr std::size_t kLongestName = 4096;
constexpr std::size_t kMostOfOne = 16;  // names of an attachment

// Properties that are names, as texts of bytes and of UTF-16: their ids end so. Behind these stand
// how many values there are, one, and the value's length.
constexpr std::string_view kNameIds[] = {"\x04\x37"sv, "\x07\x37"sv};
constexpr std::string_view kText = "\x1E\0"sv;
constexpr std::string_view kWideText = "\x1F\0"sv;
constexpr std::string_view kOneValue = "\1\0\0\0"sv;
constexpr std::size_t kPropertyHead = 12;

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
    if (id_ == kAttachmentBegin) PutFiles();
    title_.clear();
    const bool wanted = id_ == kAttachmentFile || id_ == kAttachmentProperties;
    if (wanted && questions_.Going()) file_ = std::make_unique<Scratch>();
    window_.clear();
    if (left_ > 0) return;
    EndAttribute();
    state_ = State::kChecksum;
    left_ = kChecksumSize;
}

void TnefReader::TakeContent(std::string_view bytes) {
    if (id_ == kAttachmentTitle)
        title_ += bytes.substr(0, kLongestName - std::min(title_.size(), kLongestName));
    if (file_ == nullptr) return;
    if (!file_->Write(bytes)) questions_.Fail();
    if (id_ != kAttachmentProperties || nesting_ >= kMostNesting) return;
    if (inner_ != nullptr) return inner_->Write(bytes);
    window_ += bytes;
    const std::size_t mark = window_.find(kMark);
    if (mark != std::string::npos) {
        inner_ =
            std::unique_ptr<TnefReader>(new TnefReader(questions_, place_, nesting_ + 1, told_));
        message_ = true;
        inner_->Write(std::string_view(window_).substr(mark));
        window_.clear();
    } else if (window_.size() >= kMark.size()) {
        window_.erase(0, window_.size() - kMark.size() + 1);
    }
}

void TnefReader::EndAttribute() {
    if (inner_ != nullptr) inner_->Finish();
    inner_.reset();
    if (id_ == kAttachmentTitle) AddName(title_, false);
    if (file_ == nullptr) return;
    if (id_ == kAttachmentProperties) FindNames(*file_);
    hasBytes_ = hasBytes_ || (id_ == kAttachmentFile && file_->Size() > 0);
    files_.push_back(std::move(file_));
    // No more than there are in one attachment.
    if (files_.size() > 1) PutFiles();
}

// The attachment has ended. What a message in the message is called is its subject.
void TnefReader::PutFiles() {
    if (!message_ || hasBytes_) told_.now = names_;
    if (told_.all.size() >= kMostNames) questions_.Stop();
    if (questions_.Going()) told_.all.insert(told_.all.end(), told_.now.begin(), told_.now.end());
    for (const std::unique_ptr<Scratch>& file : files_) questions_.Put(*file, place_);
    files_.clear();
    names_.clear();
    told_.now.clear();
    message_ = hasBytes_ = false;
}

void TnefReader::AddName(std::string_view bytes, bool wide) {
    std::string name;
    if (wide) {
        const auto take = [&name](std::string_view text) { name += text; };
        Utf8Stream stream("utf-16le");
        stream.Write(std::as_bytes(std::span(bytes.data(), bytes.size())), take);
        stream.Finish(take);
    } else {
        name = DecodeLoosely(bytes);
    }
    name.resize(std::min(name.size(), name.find('\0')));
    if (name.empty()) return;
    if (names_.size() >= kMostOfOne) return questions_.Stop();
    names_.push_back(std::move(name));
}

// Wherever something looks like one: other names do no harm.
void TnefReader::FindNames(Scratch& properties) {
    const int file = properties.Rewind();
    std::string held;
    long long heldAt = 0;
    const auto look = [&](std::string_view text, off_t) {
        held += text;
        for (std::size_t at = held.find(kOneValue); at != std::string::npos && questions_.Going();
             at = held.find(kOneValue, at + 1)) {
            const std::string_view head = std::string_view(held).substr(at < 4 ? 0 : at - 4);
            const bool wide = head.starts_with(kWideText);
            if (at < 4 || head.size() < kPropertyHead || (!wide && !head.starts_with(kText)) ||
                std::find(std::begin(kNameIds), std::end(kNameIds), head.substr(2, 2)) ==
                    std::end(kNameIds))
                continue;
            std::string value(std::min<std::size_t>(Number(head.substr(8)), kLongestName), '\0');
            const ssize_t count = pread(file, value.data(), value.size(),
                                        heldAt + static_cast<off_t>(at - 4 + kPropertyHead));
            AddName(std::string_view(value).substr(
                        0, static_cast<std::size_t>(std::max<ssize_t>(count, 0))),
                    wide);
        }
        const std::size_t gone = held.size() - std::min(held.size(), kPropertyHead - 1);
        held.erase(0, gone);
        heldAt += static_cast<long long>(gone);
        return questions_.Going();
    };
    if (file < 0) return questions_.Fail();
    ReadBlocks(file, 0, look);
}

void TnefReader::Finish() {
    if (state_ == State::kContent) EndAttribute();
    PutFiles();
}

}  // namespace maild
