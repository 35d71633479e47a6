#include "session/address/sender_check.h"

#include <algorithm>
#include <string>
#include <vector>

#include "asfilters/asfilters.h"

int CheckSenderReadings(asfilters::CASFilters& filters, MailPath& sender, char* denyText,
                        unsigned denySize) {
    int strictest = filters.CheckSender(sender.address.data(), denyText, denySize);
    const auto refuses = [](int result) { return result == 1 || result == 2; };
    std::vector<char> text(denySize, '\0');
    for (std::size_t i = 1; i < sender.readings.size() && strictest != 2; ++i) {
        std::string reading = sender.readings[i];
        const int result = filters.CheckSender(reading.data(), text.data(), denySize);
        if (!refuses(result) || (refuses(strictest) && result <= strictest)) continue;
        strictest = result;
        std::copy(text.begin(), text.end(), denyText);
    }
    return strictest;
}
