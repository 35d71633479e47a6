// Inside walk/: the values of Content-Type and Content-Disposition, as readers may read them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace maild {

struct Parameter {
    std::string name;   // in small letters, with the stars of RFC 2231
    std::string value;  // without its quotes
};

// "TYPE; name=value; ...": comments, and blanks around anything, count for nothing.
struct StructuredValue {
    std::string main;  // in small letters: "text/plain", "attachment", "base64"
    std::vector<Parameter> parameters;
};
StructuredValue ParseStructured(std::string_view value);

// What other readers make of a parameter: RFC 2231 put together and decoded, RFC 2047 decoded, in
// UTF-8. `disposition`: the value is a Content-Disposition's, else a Content-Type's. Empty if it
// isn't there.
std::string DecodeParameter(const std::string& value, bool disposition, const char* name);

// RFC 2047 decoded, in UTF-8 whatever it was.
std::string DecodeText(const std::string& text);
// As it is if it is UTF-8, else each byte that isn't replaced.
std::string MakeUtf8(std::string_view text);

}  // namespace maild
