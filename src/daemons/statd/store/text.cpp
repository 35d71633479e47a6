#include "daemons/statd/store/text.h"

#include <algorithm>

#include "text/ascii.h"
#include "text/printable.h"
#include "text/trim.h"

namespace stats {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

}  // namespace

std::string DomainOf(std::string_view address) {
    address = Trimmed(address, kBlanks);
    if (!address.empty() && address.front() == '<') {
        address.remove_prefix(1);
        address = address.substr(0, address.rfind('>'));
    }
    address = Trimmed(address, kBlanks);
    if (address.empty()) return "<>";
    const std::size_t at = address.rfind('@');
    std::string domain =
        at == std::string_view::npos ? "" : CleanText(address.substr(at + 1), kNameLimit);
    while (!domain.empty() && domain.back() == '.') domain.pop_back();
    if (domain.empty()) return "(no domain)";
    return LowerCase(domain);
}

std::vector<std::string> DomainsOf(std::string_view list, std::size_t limit) {
    std::vector<std::string> domains;
    while (!list.empty() && domains.size() < limit) {
        const std::size_t end = list.find(';');
        const std::string_view item = Trimmed(list.substr(0, end), kBlanks);
        list.remove_prefix(end == std::string_view::npos ? list.size() : end + 1);
        if (item.empty()) continue;
        std::string domain = DomainOf(item);
        if (std::find(domains.begin(), domains.end(), domain) == domains.end())
            domains.push_back(std::move(domain));
    }
    return domains;
}

std::string Dotted(std::int64_t host) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        if (shift != 0) text += '.';
        text += std::to_string((host >> shift) & 0xFF);
    }
    return text;
}

std::string Grouped(std::int64_t number, const char* separator) {
    std::string digits = std::to_string(number);
    for (std::size_t at = digits.size(); at > 3 && digits[at - 4] != '-';) {
        at -= 3;
        digits.insert(at, separator);
    }
    return digits;
}

}  // namespace stats
