// The page for a person: the last day, week and month at a glance, and live numbers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "daemons/statd/report/query.h"
#include "daemons/statd/store/recorder.h"

namespace stats {

// nonce: of the style and script elements. Nothing if the database can't be read.
std::optional<std::string> OverviewPage(ReportReader& reader, const LiveNumbers& live,
                                        std::int64_t now, const std::string& nonce);
// The live numbers as one flat JSON object.
std::string LiveJson(const LiveNumbers& live);

}  // namespace stats
