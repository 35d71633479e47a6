// The filters' part of a store of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>

#include "asfilters/core.h"
#include "support/instance.h"
#include "trelis/trelis.h"

inline const std::string kFilterRoot = "/VTWIN/Filters/AS";

// Starts with no key of any filter and an instance of its own, not loaded yet.
class FilterStore : public testing::Test {
  protected:
    FilterStore() {
        EXPECT_EQ(TrelisInit2(), 0);
        TrelisDelKey(kLocalStore, kFilterRoot.c_str());
    }
    ~FilterStore() override { TrelisUninit(); }

    static void Set(const std::string& key, const std::string& value) {
        EXPECT_EQ(TrelisSetValue(kLocalStore, (kFilterRoot + key).c_str(), value.c_str()), 0);
    }
    static void Set(std::initializer_list<std::pair<std::string, std::string>> values) {
        for (const auto& [key, value] : values) Set(key, value);
    }
    static void Delete(const std::string& key) {
        TrelisDelKey(kLocalStore, (kFilterRoot + key).c_str());
    }

    // The text after CheckSender and its deny text, behind its result: "1 sender|550 ...".
    static std::string Sender(asfilters::CASFilters& filters, std::string sender,
                              unsigned size = 512) {
        std::string deny(512, '#');
        const int result = filters.CheckSender(sender.data(), deny.data(), size);
        return std::to_string(result) + " " + sender + "|" +
               (deny[0] == '#' ? "untouched" : deny.c_str());
    }
};
