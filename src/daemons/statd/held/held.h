// held/: the pages of the quarantine, for the accounts that the key QuarantineAccounts names and
// for the instance's owner. What a message says is shown as text alone.
//
//   GET /quarantine?q=TEXT    what is there, the newest first
//   GET /quarantine/ID        one message: what is known of it, headers, texts
//   POST /quarantine/ID       action=release or delete, with the token of the page
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "daemons/quarantine/quarantine.h"
#include "daemons/statd/held/releaser.h"
#include "daemons/statd/web/server.h"

namespace stats {

// Any of the server's threads.
class HeldPages {
  public:
    // Whether a path is one of these.
    static bool IsTheirs(const std::string& path);
    // The account has been checked. A page needs `nonce` for its style; its caller puts the
    // headers of documents to it.
    HttpResponse Answer(const HttpRequest& request, const std::string& nonce);
    // What is there and has been; nothing if it can't be read.
    std::optional<quarantine::Numbers> Count();

  private:
    HttpResponse List(const std::string& search, const std::string& nonce);
    HttpResponse Show(const std::string& id, const std::string& token, const std::string& nonce);
    HttpResponse Act(const HttpRequest& request, const std::string& id, const std::string& account);
    std::string TokenOf(const std::string& account);

    quarantine::Quarantine store_;
    Releaser releaser_{store_};
    std::mutex mutex_;
    // By account: what a form has to bring along, which other sites' pages can't know. Guarded by
    // mutex_.
    std::map<std::string, std::string> tokens_;
};

}  // namespace stats
