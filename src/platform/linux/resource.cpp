#include "platform/library.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

struct ResourceString {
    UINT number;
    std::string_view text;
};

constexpr ResourceString kStrings[] = {
    {120, "Vantrel SMTP Proxy"},
    {121,
     "Provides security to a mail SMTP server by disinfecting the mail before it reaches the mail "
     "server"},
    {4800, "Default Interface"},
    {5602, "Redirect address %s not accepted!"},
    {6000, "421 The server has reached the maximum number of threads allowed\r\n"},
};

}  // namespace

int LoadStringA(void*, UINT number, LPSTR buffer, int size) {
    if (buffer == nullptr || size <= 0) return 0;
    buffer[0] = '\0';
    for (const ResourceString& entry : kStrings) {
        if (entry.number != number) continue;
        const std::size_t length = std::min(entry.text.size(), static_cast<std::size_t>(size) - 1);
        std::memcpy(buffer, entry.text.data(), length);
        buffer[length] = '\0';
        return static_cast<int>(length);
    }
    return 0;
}
