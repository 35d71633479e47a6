#include "session/path.h"

#include "session/normalize.h"
MailPath ReadPath(std::string_view text) {
    MailPath path;
    char buffer[512] = "";
    NormalizeAddress(std::string(text).c_str(), buffer, 511);
    path.address = buffer;
    path.readings = {path.address};
    const std::size_t close = text.find('>');
    if (close != std::string_view::npos) path.parameters = text.substr(close + 1);
    return path;
}
bool StaysInside(std::string_view text, const std::vector<std::string>& mailDomains) {
    return IsLocalRecipientOf(std::string(text).c_str(), mailDomains) != 0;
}
