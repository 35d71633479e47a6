#include "text/mailbox.h"

#include <algorithm>

#include "text/ascii.h"
#include "text/trim.h"

namespace {

bool IsPlain(char c) {
    return IsLetter(c) || IsDigit(c) || (c & 0x80) != 0 ||
           std::string_view(".!#$%&'*+-/=?^_`{|}~").find(c) != std::string_view::npos;
}

bool IsOfDomain(char c) {
    return IsLetter(c) || IsDigit(c) || (c & 0x80) != 0 ||
           std::string_view(".-_:[]").find(c) != std::string_view::npos;
}

bool IsQuoted(std::string_view text) {
    if (text.size() < 2 || text.front() != '"' || text.back() != '"') return false;
    text = text.substr(1, text.size() - 2);
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '"' || (text[i] == '\\' && ++i == text.size())) return false;
    }
    return true;
}

std::string Quoted(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted + '"';
}

}  // namespace

std::string Mailbox(std::string_view told) {
    told = Trimmed(told, " \t\r\n");
    if (told == "<>") return {};
    if (told.ends_with('>') && !told.ends_with("\\>")) told.remove_suffix(1);
    return std::string(told);
}

std::vector<std::string> SplitRecipients(std::string_view list) {
    std::vector<std::string> all;
    std::string each;
    const auto take = [&] {
        if (std::string mailbox = Mailbox(each); !mailbox.empty())
            all.push_back(std::move(mailbox));
        each.clear();
    };
    bool quoted = false;
    for (std::size_t i = 0; i < list.size(); ++i) {
        const char c = list[i];
        if (c == ';' && !quoted) {
            take();
            continue;
        }
        if (c == '"') quoted = !quoted;
        each += c;
        if (c == '\\' && quoted && i + 1 < list.size()) each += list[++i];
    }
    take();
    return all;
}

std::string MailboxPath(const std::string& mailbox) {
    if (std::any_of(mailbox.begin(), mailbox.end(), [](char c) { return IsControl(c); })) return {};
    const std::size_t at = mailbox.rfind('@');
    const std::string local = mailbox.substr(0, at);
    const std::string domain = at == std::string::npos ? std::string() : mailbox.substr(at);
    const bool plain = std::all_of(local.begin(), local.end(), IsPlain);
    const bool good =
        domain.empty() ? plain : std::all_of(domain.begin() + 1, domain.end(), IsOfDomain);
    if (!good) return {};
    return '<' + (plain || IsQuoted(local) ? local : Quoted(local)) + domain + '>';
}
