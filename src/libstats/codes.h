// What statistics records say: the event codes, who reports them, and how reports group them.
// Senders (the proxy, vtmaild) and the statistics daemon include it.
#pragma once

#include <cstddef>
#include <cstdint>

// Event codes. The proxy's filters:
inline constexpr std::int32_t kStatPeerDenied = 80;
inline constexpr std::int32_t kStatSenderDropped = 81;
inline constexpr std::int32_t kStatRecipientHarvest = 82;
// One for each message that was to be scanned. Sender and recipients are the envelope's, the source
// host is the SMTP client, the value is the message's size in bytes, the label the signature.
inline constexpr std::int32_t kStatClean = 100;
inline constexpr std::int32_t kStatInfectedRefused = 101;
inline constexpr std::int32_t kStatInfectedDropped = 102;
inline constexpr std::int32_t kStatInfectedRedirected = 103;
inline constexpr std::int32_t kStatNotScanned = 104;       // the message was put off
inline constexpr std::int32_t kStatPassedUnscanned = 105;  // delivered, as a setting allows
// A message that holds what nobody can look into without its password:
inline constexpr std::int32_t kStatEncryptedPassed = 106;
inline constexpr std::int32_t kStatEncryptedRefused = 107;  // put off it counts as not scanned
// A message whose structure is ambiguous, or too complex to be looked at; put off it counts as not
// scanned.
inline constexpr std::int32_t kStatStructureRefused = 108;
// A message that is in the quarantine; one with malware that was delivered, as a setting says.
inline constexpr std::int32_t kStatQuarantined = 109;
inline constexpr std::int32_t kStatInfectedPassed = 110;
// A message that a rule on attachments or content decides about; the label is the rule and what it
// has met. Put off it counts as not scanned.
inline constexpr std::int32_t kStatRuleRefused = 120;
inline constexpr std::int32_t kStatRuleDropped = 121;
inline constexpr std::int32_t kStatRuleRedirected = 122;
// Spam; the label is its score. What nobody could judge, and is put off, counts as not scanned.
inline constexpr std::int32_t kStatSpamRefused = 130;
inline constexpr std::int32_t kStatSpamPutOff = 131;  // as greylisting does
inline constexpr std::int32_t kStatSpamQuarantined = 132;
inline constexpr std::int32_t kStatSpamTagged = 133;

// Agent numbers of the reporters.
inline constexpr std::uint32_t kStatAgentProxy = 4;
inline constexpr std::uint32_t kStatAgentScanner = 5;

struct StatEvent {
    std::int32_t code;
    const char* name;
};
// What a list of events calls them. The first kStatAlways are in it even where none has come.
inline constexpr StatEvent kStatEvents[] = {
    {kStatClean, "Clean"},
    {kStatInfectedRefused, "Infected, refused"},
    {kStatInfectedDropped, "Infected, dropped"},
    {kStatInfectedRedirected, "Infected, redirected"},
    {kStatNotScanned, "Not scanned, put off"},
    {kStatPassedUnscanned, "Not scanned, passed"},
    {kStatEncryptedPassed, "Encrypted, passed"},
    {kStatEncryptedRefused, "Encrypted, refused"},
    {kStatPeerDenied, "Peer denied"},
    {kStatSenderDropped, "Sender dropped"},
    {kStatRecipientHarvest, "Recipient harvest"},
    {kStatStructureRefused, "Malformed, refused"},
    {kStatQuarantined, "Quarantined"},
    {kStatInfectedPassed, "Infected, passed"},
    {kStatRuleRefused, "Rule, refused"},
    {kStatRuleDropped, "Rule, dropped"},
    {kStatRuleRedirected, "Rule, redirected"},
    {kStatSpamRefused, "Spam, refused"},
    {kStatSpamPutOff, "Spam, put off"},
    {kStatSpamQuarantined, "Spam, quarantined"},
    {kStatSpamTagged, "Spam, tagged"},
};
inline constexpr std::size_t kStatAlways = 11;

// One or two codes that a person reads as one number; a column of a report.
struct StatColumn {
    const char* name;
    const char* heading;  // of a narrow column
    std::int32_t code;
    std::int32_t also = 0;  // 0: none
};
inline constexpr StatColumn kStatColumns[] = {
    {"Clean", "Clean", kStatClean},
    {"Infected, refused", "Refused", kStatInfectedRefused},
    {"Infected, dropped", "Dropped", kStatInfectedDropped},
    {"Infected, redirected", "Redirected", kStatInfectedRedirected},
    {"Not scanned, put off", "Put off", kStatNotScanned},
    {"Not scanned, passed", "Unscanned", kStatPassedUnscanned},
    {"Encrypted, passed", "Encrypted", kStatEncryptedPassed},
    {"Encrypted, refused", "Enc. ref.", kStatEncryptedRefused},
    {"Infected, passed", "Inf. passed", kStatInfectedPassed},
    {"Quarantined", "Quarantined", kStatQuarantined, kStatSpamQuarantined},
    {"Refused by a rule or as malformed", "Rule ref.", kStatRuleRefused, kStatStructureRefused},
    {"Dropped or redirected by a rule", "Rule drop.", kStatRuleDropped, kStatRuleRedirected},
    {"Spam, refused", "Spam ref.", kStatSpamRefused},
    {"Spam, put off", "Spam off", kStatSpamPutOff},
    {"Spam, tagged", "Tagged", kStatSpamTagged},
    {"Peer denied", "Denied", kStatPeerDenied},
    {"Sender dropped", "Senders", kStatSenderDropped},
    {"Recipient harvest", "Harvest", kStatRecipientHarvest},
};
// Groups of a report: one for each column, and one for all codes that nobody knows behind them.
inline constexpr std::size_t kStatVerdicts = 15;  // the first groups: what became of a message
inline constexpr std::size_t kStatOtherGroup = sizeof kStatColumns / sizeof kStatColumns[0];
inline constexpr std::size_t kStatGroups = kStatOtherGroup + 1;

constexpr std::size_t StatGroup(std::int64_t code) {
    for (std::size_t i = 0; i < kStatOtherGroup; ++i) {
        const StatColumn& column = kStatColumns[i];
        if (column.code == code || (column.also != 0 && column.also == code)) return i;
    }
    return kStatOtherGroup;
}
constexpr const char* StatGroupName(std::size_t group) {
    return group < kStatOtherGroup ? kStatColumns[group].name : "Other";
}
constexpr const char* StatGroupColumn(std::size_t group) {
    return group < kStatOtherGroup ? kStatColumns[group].heading : "Other";
}
// A message with malware, whatever became of it.
constexpr bool IsStatInfected(std::int64_t code) {
    return (code >= kStatInfectedRefused && code <= kStatInfectedRedirected) ||
           code == kStatInfectedPassed;
}
