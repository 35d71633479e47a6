#include "daemons/logd/reader/filter.h"

#include <algorithm>

#include "text/ascii.h"

namespace {

bool IsAddress(std::string_view address, std::string_view wanted) {
    if (wanted.starts_with('@') && address.size() > wanted.size())
        address.remove_prefix(address.size() - wanted.size());
    return EqualIgnoringCase(address, wanted);
}

bool HasAddress(std::string_view addresses, std::string_view wanted) {
    for (;;) {
        const std::size_t end = addresses.find(';');
        if (IsAddress(addresses.substr(0, end), wanted)) return true;
        if (end == std::string_view::npos) return false;
        addresses.remove_prefix(end + 1);
    }
}

}  // namespace

bool LogFilter::Fits(const LogRecord& record) const {
    if ((since && record.at < *since) || (until && record.at >= *until)) return false;
    const auto is = [&record](std::string_view name, const std::string& wanted) {
        const std::string* value = record.Find(name);
        return value != nullptr && *value == wanted;
    };
    const auto names = [&](std::string_view name) {
        const std::string* value = record.Find(name);
        return value != nullptr && EqualIgnoringCase(*value, id);
    };
    if (!id.empty() && !names("id") && !names("session") && !names("log_id")) return false;
    if (!verdict.empty() && !is("verdict", verdict)) return false;
    const std::string* value = nullptr;
    if (!from.empty() && ((value = record.Find("from")) == nullptr || !IsAddress(*value, from)))
        return false;
    if (!to.empty() && ((value = record.Find("to")) == nullptr || !HasAddress(*value, to)))
        return false;
    if (!peer) return true;
    value = record.Find("peer");
    const auto address = value == nullptr ? std::nullopt : IpAddress::Parse(*value);
    return address && peer->Contains(*address);
}
