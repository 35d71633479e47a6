// Inside logclient/: the classes of events and the words of their levels.
#pragma once

#include "logclient/logclient.h"

struct LogClass {
    const char* name;
    std::uint32_t kind;
};
inline constexpr LogClass kLogClasses[] = {
    {"Virus", kEventVirus},
    {"Warning", kEventWarning},
    {"Error", kEventError},
    {"Info", kEventInfo},
    {"OnDemand", kEventOnDemand},
    {"FileNotScanned", kEventFileNotScanned},
    {"RuleMatched", kEventRuleMatched},
    {"UpdateInfo", kEventUpdateInfo},
    {"UpdateError", kEventUpdateError},
    {"ProductUpdate", kEventProductUpdate},
    {"ReportGenerated", kEventReportGenerated},
};

struct LogLevel {
    const char* word;
    std::uint32_t bit;
};
inline constexpr LogLevel kLogLevels[] = {
    {"low", kLevelLow}, {"medium", kLevelMedium}, {"high", kLevelHigh}, {"none", kLevelNone}};
