// Inside maild/: the one place from which the mail daemon logs.
#pragma once

#include <cstdint>
#include <string>

#include "logclient/logclient.h"

struct LogLine {
    std::uint32_t kind = kEventInfo;  // Info, Warning, Virus or FileNotScanned
    std::string text{};               // for a person
    std::string path{};               // of the spool file
    std::string sender{};
    std::string recipients{};  // joined by ';'
    std::string peer{};        // dotted
    std::string signature{};   // Virus: its name
    std::string status{};      // Virus: what becomes of the message
};

// The level is the one that the configuration has for the kind. What is no virus goes to standard
// error too. Any thread.
void Log(LogLine line);
// The same, if no line of this text was logged so before: for what would come again with each
// message or each reading of the settings. Any thread.
void LogOnce(LogLine line);
