// An engine for tests of what it is asked about.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "daemons/maild/antivirus/questions.h"

// Keeps the files, in their order, and finds those that hold "virus".
inline maild::Questions::Ask KeepingIn(std::vector<std::string>& files) {
    return [&files](int file, long long size) {
        std::string bytes(static_cast<std::size_t>(size), '\0');
        EXPECT_EQ(pread(file, bytes.data(), bytes.size(), 0), size);
        const bool found = bytes.find("virus") != std::string::npos;
        files.push_back(std::move(bytes));
        return found ? ScanResult{ScanOutcome::kInfected, "virus"}
                     : ScanResult{ScanOutcome::kClean, ""};
    };
}
