// Inside coding/: a text part's bytes in UTF-8, block by block, for sinks that look at text.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace maild {

// From one charset to UTF-8. What a charset can't mean becomes U+FFFD; an unknown or missing
// charset is taken for UTF-8, and bytes that are none for Windows-1252. One thread at a time.
class Utf8Stream {
  public:
    using Take = std::function<void(std::string_view)>;

    explicit Utf8Stream(const std::string& charset);
    Utf8Stream(const Utf8Stream&) = delete;
    Utf8Stream& operator=(const Utf8Stream&) = delete;
    ~Utf8Stream();

    // Hands on what is whole so far; a character that is cut stays for the next call.
    void Write(std::span<const std::byte> bytes, const Take& take);
    // Behind the last bytes: what was cut then.
    void Finish(const Take& take);
    // Whether the charset is one that the system knows.
    bool Known() const { return known_; }

  private:
    void Convert(bool last, const Take& take);

    void* converter_ = nullptr;  // iconv's
    void* fallback_ = nullptr;   // of UTF-8: for bytes that are none
    bool utf8_ = true;
    bool wide_ = false;  // in UTF-16, whose first byte hasn't come yet
    bool known_ = true;
    std::string rest_;  // bytes not converted yet
};

}  // namespace maild
