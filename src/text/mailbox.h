// Addresses of envelopes, as the proxy's requests to other programs have them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Without what the proxy leaves of a path's brackets: the null sender, which it calls "<>" with its
// line end, is empty, and "postmaster>" a name.
std::string Mailbox(std::string_view told);

// The mailboxes of a list with ';' between two, but for those within quotes.
std::vector<std::string> SplitRecipients(std::string_view list);

// As a command has it, in angle brackets, with quotes where it needs them. Empty: no command can
// have it, for it would be something else there.
std::string MailboxPath(const std::string& mailbox);
