// Inside changes/: a part of the configuration as a text that a person edits. A line a key, short
// name, '=', value; '#' begins a comment, and what no value stands for is in one, with its default.
// A value with blanks at its ends, quotes or controls is in quotes, as JSON writes them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

// Values by path. Of those that programs write there are none.
using ConfigurationValues = std::map<std::string, std::string>;

// The known keys at and below the path, and the unknown ones that have a value.
std::string WriteForm(const ConfigurationValues& values, const std::string& path);

struct ReadForm {
    ConfigurationValues values;
    std::vector<std::string> complaints;  // "line 7: ..."
};
// A value is taken as `vtregistry set` takes it. A complaint: a line that is none, a key that isn't
// known, or not below the path, or that stands there twice, a value that programs don't take.
// `before`: what stands there unchanged is no reason to complain.
ReadForm ParseForm(const std::string& text, const ConfigurationValues& before,
                   const std::string& path);
