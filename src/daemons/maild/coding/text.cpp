#include "daemons/maild/coding/text.h"

#include <iconv.h>

#include <cerrno>

namespace maild {

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";
constexpr std::size_t kBlock = 4096;

void* const kNone = reinterpret_cast<void*>(-1);

void* Open(const char* charset) {
    void* const opened = iconv_open("UTF-8", charset);
    return opened == kNone ? nullptr : opened;
}

bool IsUtf8(const std::string& charset) {
    return charset.empty() || charset == "utf-8" || charset == "utf8" || charset == "us-ascii";
}

// As the system knows it.
const char* NameOf(const std::string& charset) {
    // Under names of old: "unicode-1-1-utf-7", "x-unicode-2-0-utf-7".
    return charset.find("utf-7") != std::string::npos ? "UTF-7" : charset.c_str();
}

}  // namespace

Utf8Stream::Utf8Stream(const std::string& charset) {
    utf8_ = IsUtf8(charset);
    wide_ = charset == "utf-16" || charset == "ucs-2" || charset == "iso-10646-ucs-2";
    // A suffix of iconv's own would have it drop or invent characters.
    if (!utf8_ && charset.find('/') == std::string::npos) converter_ = Open(NameOf(charset));
    known_ = utf8_ || converter_ != nullptr;
    if (converter_ == nullptr) {
        utf8_ = true;
        converter_ = Open("UTF-8");
    }
    if (utf8_) fallback_ = Open("WINDOWS-1252");
}

Utf8Stream::~Utf8Stream() {
    for (void* each : {converter_, fallback_}) {
        if (each != nullptr) iconv_close(each);
    }
}

void Utf8Stream::Write(std::span<const std::byte> bytes, const Take& take) {
    rest_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    Convert(false, take);
}

void Utf8Stream::Finish(const Take& take) { Convert(true, take); }

void Utf8Stream::Convert(bool last, const Take& take) {
    if (converter_ == nullptr) {
        take(rest_);
        rest_.clear();
        return;
    }
    if (wide_ && !rest_.empty()) {
        // Without a mark the system takes the low byte for the first one.
        wide_ = false;
        void* const turned = rest_[0] == '\0' ? Open("UTF-16BE") : nullptr;
        if (turned != nullptr) {
            iconv_close(converter_);
            converter_ = turned;
        }
    }
    char* from = rest_.data();
    std::size_t left = rest_.size();
    char block[kBlock];
    while (left > 0) {
        char* to = block;
        std::size_t room = sizeof block - 8;
        errno = 0;
        const std::size_t done = iconv(converter_, &from, &left, &to, &room);
        const int why = errno;
        if (done == static_cast<std::size_t>(-1) && why == EINVAL && !last) {
            take({block, static_cast<std::size_t>(to - block)});
            break;
        }
        if (done == static_cast<std::size_t>(-1) && why != E2BIG) {
            // One byte stands for itself, so that what is behind it is read.
            char* odd = from++;
            --left;
            std::size_t one = 1;
            if (fallback_ == nullptr ||
                iconv(fallback_, &odd, &one, &to, &room) == static_cast<std::size_t>(-1)) {
                for (const char* each = kReplacement; *each != '\0'; ++each) *to++ = *each;
            }
        }
        take({block, static_cast<std::size_t>(to - block)});
    }
    rest_.erase(0, rest_.size() - left);
}

}  // namespace maild
