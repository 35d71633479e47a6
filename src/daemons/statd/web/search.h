// The story of a message: GET /find?q=TEXT, out of the log.
#pragma once

#include <optional>
#include <string>

namespace stats {

// The form that asks for it, with what was asked for last.
std::string SearchForm(const std::string& asked);
// The page. asked: an id of a session or a message, as it stands behind a refusal, an address, a
// part of one, a client's address, a Message-ID or the server's queue id. nonce: of the style.
// Reads the log from its beginning; one search at a time. Nothing: another one runs. It would take
// the threads of all who ask for something else to have it wait.
std::optional<std::string> SearchPage(const std::string& asked, const std::string& nonce);

}  // namespace stats
