#include "daemons/maild/antivirus/signeddata.h"

#include <algorithm>

#include "text/ascii.h"

namespace maild {

namespace {

constexpr unsigned kConstructed = 0x20;
constexpr unsigned kLongTag = 0x1F;
constexpr unsigned kOctetString = 0x04;
constexpr unsigned kLongLength = 0x80;
constexpr int kMostLengthBytes = 7;

}  // namespace

bool SignedData::MayBe(const Part& part) {
    return part.type == "application/pkcs7-mime" || part.type == "application/x-pkcs7-mime" ||
           std::any_of(part.names.begin(), part.names.end(),
                       [](const std::string& name) { return LowerCase(name).ends_with(".p7m"); });
}

bool SignedData::Write(std::string_view bytes) {
    while (!bytes.empty()) {
        if (state_ == State::kContent) {
            const std::string_view content = bytes.substr(
                0, static_cast<std::size_t>(std::min<std::uint64_t>(left_, bytes.size())));
            if (tag_ == kOctetString && !file_.Write(content)) return false;
            bytes.remove_prefix(content.size());
            left_ -= content.size();
            if (left_ == 0) state_ = State::kTag;
            continue;
        }
        const unsigned byte = static_cast<unsigned char>(bytes.front());
        bytes.remove_prefix(1);
        switch (state_) {
            case State::kTag:
                tag_ = byte;
                state_ = (byte & kLongTag) == kLongTag ? State::kMoreTag : State::kLength;
                break;
            case State::kMoreTag:
                if ((byte & 0x80U) == 0) state_ = State::kLength;
                break;
            case State::kLength:
                lengthBytes_ = (byte & kLongLength) != 0 ? static_cast<int>(byte & 0x7FU) : 0;
                left_ = (byte & kLongLength) != 0 ? 0 : byte;
                state_ = State::kMoreLength;
                if (lengthBytes_ == 0) BeginContent();
                break;
            case State::kMoreLength:
                left_ = left_ << 8 | byte;
                if (--lengthBytes_ == 0) BeginContent();
                break;
            case State::kContent:
                break;
        }
        // No such length is meant; what follows is read as elements, and finds its feet or not.
        if (lengthBytes_ > kMostLengthBytes) state_ = State::kTag;
    }
    return true;
}

void SignedData::BeginContent() {
    const bool enters = (tag_ & kConstructed) != 0 || left_ == 0;
    state_ = enters ? State::kTag : State::kContent;
}

}  // namespace maild
