// stub until the parser comes
#pragma once
#include <string>
#include <string_view>
#include <vector>
struct MailPath {
    std::string address;
    std::vector<std::string> readings;
    std::string_view parameters;
};
MailPath ReadPath(std::string_view text);
bool StaysInside(std::string_view text, const std::vector<std::string>& mailDomains);
