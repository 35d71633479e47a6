// Inside antispam/: an answer that is a line of status, lines "Name: value", an empty line, and a
// body: of HTTP, and of spamd. Only a whole one counts.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "daemons/maild/engine/connection.h"

namespace maild {

inline constexpr std::size_t kLongestHead = 16 << 10;
inline constexpr std::size_t kLongestBody = 4 << 20;

// Its texts are those of the bytes that it was read from.
struct HeadedReply {
    std::string_view status;
    std::vector<std::pair<std::string_view, std::string_view>> fields;
    std::string_view body;

    // The first field of that name, in any case; empty: none.
    std::string_view Field(std::string_view name) const;
};

enum class Came { kPart, kWhole, kNonsense };
// How much of one has come. `ended`: nothing more will.
Came ReadHeaded(std::string_view bytes, bool ended, HeadedReply& reply);

// Receives one into the buffer. False with the reason.
bool ReceiveHeaded(Connection& connection, std::string& buffer, HeadedReply& reply,
                   std::string& why);

}  // namespace maild
