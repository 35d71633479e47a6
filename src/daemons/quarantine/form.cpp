#include "daemons/quarantine/form.h"

#include <algorithm>
#include <charconv>

#include "text/ascii.h"

namespace quarantine {

namespace {

struct TextField {
    const char* name;
    std::string KeptMessage::*member;
};
constexpr TextField kTexts[] = {{"id", &KeptMessage::id},
                                {"sender", &KeptMessage::sender},
                                {"recipients", &KeptMessage::recipients},
                                {"peer", &KeptMessage::peer},
                                {"helo", &KeptMessage::helo},
                                {"log-id", &KeptMessage::logId},
                                {"subject", &KeptMessage::subject},
                                {"verdict", &KeptMessage::verdict},
                                {"section", &KeptMessage::section},
                                {"rule", &KeptMessage::rule},
                                {"reason", &KeptMessage::reason},
                                {"state", &KeptMessage::state},
                                {"before", &KeptMessage::before}};

std::string Escape(std::string_view value) {
    std::string text;
    for (const char c : value) {
        if (c < ' ' || c > '~' || c == '\\') {
            text += "\\x" + ToHex({&c, 1});
        } else {
            text += c;
        }
    }
    return text;
}

std::string Unescape(std::string_view text) {
    std::string value;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool escape = text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' &&
                            HexDigit(text[i + 2]) >= 0 && HexDigit(text[i + 3]) >= 0;
        if (escape) {
            value += static_cast<char>(HexDigit(text[i + 2]) * 16 + HexDigit(text[i + 3]));
            i += 3;
        } else {
            value += text[i];
        }
    }
    return value;
}

long long NumberOf(std::string_view text) {
    long long number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

}  // namespace

bool IsId(std::string_view text) {
    return !text.empty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), [](char c) {
        return IsLetter(c) || IsDigit(c) || c == '-';
    });
}

std::string WriteForm(const KeptMessage& message) {
    std::string text;
    for (const TextField& field : kTexts)
        text += std::string(field.name) + ": " + Escape(message.*field.member) + "\n";
    return text + "at: " + std::to_string(message.at) + "\nsize: " + std::to_string(message.size) +
           "\n";
}

std::optional<KeptMessage> ReadForm(std::string_view text) {
    KeptMessage message;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::size_t colon = line.find(": ");
        if (colon == std::string_view::npos) continue;
        const std::string_view name = line.substr(0, colon);
        const std::string_view value = line.substr(colon + 2);
        if (name == "at") message.at = NumberOf(value);
        if (name == "size") message.size = NumberOf(value);
        for (const TextField& field : kTexts) {
            if (name == field.name) message.*field.member = Unescape(value);
        }
    }
    if (!IsId(message.id)) return std::nullopt;
    return message;
}

}  // namespace quarantine
