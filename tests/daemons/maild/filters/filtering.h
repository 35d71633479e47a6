// Attachments of a message asked about by rules on names and real types.
#pragma once

#include <sys/mman.h>

#include <chrono>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include "daemons/maild/attachments/filter.h"
#include "daemons/maild/walk/walk.h"
#include "packing.h"
#include "platform/file.h"

inline const std::string kProgram = std::string("MZ\x90\0\3\0\0\0", 8) + std::string(200, '\0');

inline maild::AttachmentRule NameRule(const char* name, const char* pattern) {
    maild::AttachmentRule rule;
    rule.name = name;
    rule.fileName = maild::NamePatterns(pattern);
    return rule;
}
inline maild::AttachmentRule TypeRule(const char* name, const char* pattern) {
    maild::AttachmentRule rule;
    rule.name = name;
    rule.realType = maild::NamePatterns(pattern);
    return rule;
}

struct Result {
    std::string findings;  // "rule: reason; ..."
    std::string encrypted;
    std::string tooComplex;
};

inline Result Filter(const std::string& message, const maild::AttachmentRules& rules) {
    maild::AttachmentFilter filter(rules,
                                   std::chrono::steady_clock::now() + std::chrono::seconds(30));
    Show(message, filter);
    Result result{"", filter.Encrypted(), filter.TooComplex()};
    for (const maild::Finding& each : filter.Findings())
        result.findings += each.rule + ": " + each.reason + "; ";
    return result;
}

inline std::string Random(std::size_t size) {
    std::mt19937 random(1);
    std::string text;
    while (text.size() < size) text += static_cast<char>(random());
    return text;
}
