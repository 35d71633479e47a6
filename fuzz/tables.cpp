// A report from a statistics server: its words and tables.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "libstats/tables.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto tables = ParseTables(text.c_str());
    if (tables == nullptr) std::abort();
    for (const auto& table : *tables) {
        for (const auto& row : table) {
            // A row without a cell ends the report before it.
            if (row.empty()) std::abort();
        }
    }
    return 0;
}
