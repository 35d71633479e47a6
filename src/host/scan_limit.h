// How large a message the scan daemon takes: the limit of an interface that has none of its own. A
// larger one would be put off for ever.
#pragma once

#include <memory>

// In bytes, as the daemon last told or is configured; 0: none is known. Never null.
std::shared_ptr<const long long> ReadScanLimit();
