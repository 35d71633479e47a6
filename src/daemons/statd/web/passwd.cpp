#include "daemons/statd/web/passwd.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>

#include "daemons/statd/web/accounts.h"
#include "platform/console.h"
#include "trelis/admin.h"
#include "trelis/trelis.h"

namespace stats {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

int Usage() {
    std::cerr << "usage: vtstatd passwd NAME       (the password is one line of standard input)\n"
                 "       vtstatd passwd -d NAME    (deletes the account)\n"
                 "A name has 1 to 64 letters, digits and . _ - @, no - first; \""
              << kOwnerName << "\" is taken.\n";
    return kWrongUsage;
}

int Failed(const std::string& what) {
    std::cerr << "vtstatd: " << what << '\n';
    return kFailed;
}

std::optional<std::string> AskLine(const char* prompt, bool terminal) {
    if (terminal) std::cerr << prompt;
    std::string line;
    const bool good = static_cast<bool>(std::getline(std::cin, line));
    if (terminal) std::cerr << '\n';
    if (!good) return std::nullopt;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

std::optional<std::string> AskPassword() {
    const platform::QuietTerminal quiet(STDIN_FILENO);
    auto password = AskLine("Password: ", quiet.Active());
    // A slip that nobody saw would lock its author out.
    if (password && quiet.Active() && AskLine("Once more: ", true) != password) {
        Failed("the two are not the same");
        return std::nullopt;
    }
    return password;
}

int Delete(const std::string& name) {
    return DeleteAccount(name) ? 0 : Failed("no such account: " + name);
}

int Make(const std::string& name) {
    const auto password = AskPassword();
    if (!password) return Failed("no password was given");
    if (password->empty() || password->size() > kPasswordLimit ||
        password->find('\0') != std::string::npos)
        return Failed("a password has 1 to " + std::to_string(kPasswordLimit) + " bytes");
    return StoreAccount(name, *password) ? 0
                                         : Failed("can't store the account: " +
                                                  trelis::WhyNotChanged("there is no hash of it"));
}

}  // namespace

int PasswdCommand(int argc, char** argv) {
    const bool remove = argc == 3 && std::strcmp(argv[1], "-d") == 0;
    if (argc != 2 && !remove) return Usage();
    const std::string name = argv[argc - 1];
    if (!ValidAccountName(name)) return Usage();
    if (TrelisInit2() != 0) return Failed(trelis::WhyNotOpen());
    const int code = remove ? Delete(name) : Make(name);
    TrelisUninit();
    return code;
}

}  // namespace stats
