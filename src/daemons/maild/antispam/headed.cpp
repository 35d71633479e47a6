#include "daemons/maild/antispam/headed.h"

#include <array>
#include <charconv>
#include <optional>

#include "text/ascii.h"
#include "text/trim.h"

namespace maild {

namespace {

constexpr std::size_t kMostFields = 100;

bool ReadHead(std::string_view head, HeadedReply& reply) {
    const std::size_t first = head.find("\r\n");
    reply.status = head.substr(0, first);
    reply.fields.clear();
    if (first == std::string_view::npos) return true;
    for (head.remove_prefix(first + 2); !head.empty();) {
        const std::string_view line = head.substr(0, head.find("\r\n"));
        head.remove_prefix(line.size() == head.size() ? head.size() : line.size() + 2);
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0 || reply.fields.size() >= kMostFields)
            return false;
        reply.fields.emplace_back(line.substr(0, colon), Trimmed(line.substr(colon + 1)));
    }
    return true;
}

// The body's length by the head, if it says one. False: two that contradict, or no number.
bool LengthOf(const HeadedReply& reply, std::optional<std::size_t>& length) {
    for (const auto& [name, value] : reply.fields) {
        if (!EqualIgnoringCase(name, "Content-Length")) continue;
        std::size_t number = 0;
        const auto [end, error] =
            std::from_chars(value.data(), value.data() + value.size(), number);
        if (error != std::errc() || end != value.data() + value.size() ||
            (length && *length != number))
            return false;
        length = number;
    }
    return true;
}

}  // namespace

std::string_view HeadedReply::Field(std::string_view name) const {
    for (const auto& [each, value] : fields) {
        if (EqualIgnoringCase(each, name)) return value;
    }
    return {};
}

Came ReadHeaded(std::string_view bytes, bool ended, HeadedReply& reply) {
    const std::size_t end = bytes.substr(0, kLongestHead).find("\r\n\r\n");
    if (end == std::string_view::npos)
        return ended || bytes.size() >= kLongestHead ? Came::kNonsense : Came::kPart;
    std::optional<std::size_t> length;
    if (!ReadHead(bytes.substr(0, end), reply) || !LengthOf(reply, length) ||
        !reply.Field("Transfer-Encoding").empty())
        return Came::kNonsense;
    reply.body = bytes.substr(end + 4);
    if (reply.body.size() > kLongestBody || (length && *length > kLongestBody) ||
        (length && reply.body.size() > *length))
        return Came::kNonsense;
    if (length) {
        if (reply.body.size() == *length) return Came::kWhole;
        return ended ? Came::kNonsense : Came::kPart;
    }
    return ended ? Came::kWhole : Came::kPart;
}

bool ReceiveHeaded(Connection& connection, std::string& buffer, HeadedReply& reply,
                   std::string& why) {
    buffer.clear();
    std::array<char, 16384> block;
    for (;;) {
        const ssize_t count = connection.ReceiveSome(block.data(), block.size());
        if (count < 0) {
            why = connection.TimedOut() ? "no answer in time" : "the connection broke";
            return false;
        }
        buffer.append(block.data(), static_cast<std::size_t>(count));
        switch (ReadHeaded(buffer, count == 0, reply)) {
            case Came::kWhole:
                return true;
            case Came::kNonsense:
                why = count == 0 ? "the answer is not whole" : "the answer is none";
                return false;
            case Came::kPart:
                break;
        }
    }
}

}  // namespace maild
