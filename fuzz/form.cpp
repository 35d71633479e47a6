// What a client of the statistics page sends: credentials, then a form.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "daemons/statd/report/form.h"
#include "daemons/statd/web/accounts.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string pair = stats::DecodeBasic(text);
    if (!pair.empty() && pair.find(':') == std::string::npos) std::abort();
    std::string why;
    const auto request = stats::ParseReportForm(text, 20000, why);
    if (request.has_value() ? request->firstDay > request->lastDay : why.empty()) std::abort();
    return 0;
}
