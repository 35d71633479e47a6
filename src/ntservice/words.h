// What a program that is a service answers to a person's words before it becomes one.
#pragma once

#include <optional>

#include "text/usage.h"

struct ServiceWords {
    const char* program;
    const char* summary;   // what it does, for people: whole lines
    const char* own = "";  // lines of usage for words of its own: whole lines, indented
};

// Summary, the program's own words, and the options of every service.
Usage ServiceUsage(const ServiceWords& words);
// Answers --help and --version: the exit code. Nothing otherwise: the options decide
// (CNTService::ProcessCommandLine), which pass over words that they don't know, and so a program
// with none but such words is the service that no manager has started. That is left so, but a
// person is told the usage; a service manager's arguments are its own affair.
std::optional<int> AnswerServiceWords(const ServiceWords& words, int argc, char** argv);
