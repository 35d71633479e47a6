// Inside walk/: what readers take for the value of one parameter that names a part.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace maild {

// Adds each reading once. `value` is the header's, unfolded; `name` the parameter's, in small
// letters.
void AddReadings(std::vector<std::string>& list, const std::string& value, bool disposition,
                 const char* name);

// The same by the crudest ones alone, which don't know the syntax: whatever stands behind the name,
// up to the semicolon, and within the first quotes; pieces together.
void AddCrude(std::vector<std::string>& list, std::string_view value, std::string_view name);

}  // namespace maild
