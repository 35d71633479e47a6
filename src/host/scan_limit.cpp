#include "host/scan_limit.h"

#include "trelis/buffered.h"
#include "trelis/size.h"

namespace {

constexpr char kDaemonKey[] = "/VTWIN/Daemons/MailDaemon";
// What it is configured to take; else what it takes unasked, which it writes down at its start. 0
// there: all.
constexpr const char* kLimitKeys[] = {"/VTWIN/Daemons/MailDaemon/MaxFileSize",
                                      "/VTWIN/Daemons/MailDaemon/RTP/MaxFileSize"};

// With it the daemon lets a larger message pass as it is.
constexpr char kPassKey[] = "/VTWIN/Daemons/MailDaemon/PassWhenTooBig";

long long ReadLimit() {
    char pass[8];
    BufferedGetValue(kLocalStore, kPassKey, pass, sizeof pass);
    if (pass[0] == 'Y' || pass[0] == 'y') return 0;
    for (const char* key : kLimitKeys) {
        char value[64];
        if (BufferedGetValue(kLocalStore, key, value, sizeof value) != 0) continue;
        if (const long long size = ParseSize(value).value_or(0); size > 0) return size;
    }
    return 0;
}

}  // namespace

void ScanLimit::Watch() {
    // The watch comes first: a change during the reading is told of, not missed.
    watch_ = TrelisPlaceNotify(kLocalStore, kDaemonKey, 1);
    limit_ = ReadLimit();
}

void ScanLimit::Unwatch() {
    if (watch_ != nullptr) TrelisCancelNotify(kLocalStore, kDaemonKey, 1, watch_);
    watch_ = nullptr;
}

long long ScanLimit::Current() {
    if (watch_ != nullptr && TrelisWaitNotify(kLocalStore, watch_, 0) > 0) limit_ = ReadLimit();
    return limit_;
}
