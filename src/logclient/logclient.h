// logclient/: the client of the logger daemon vtlogd: classes of events, their levels from the
// configuration store, and delivery. LogClientEvent returns when the daemon has answered;
// LogClientPost, for threads that have mail to serve, never waits for it.
#pragma once

#include <cstdint>
#include <string_view>

// Event kinds: the top 16 bits of an event word.
inline constexpr std::uint32_t kEventVirus = 0x10000;
inline constexpr std::uint32_t kEventWarning = 0x20000;
inline constexpr std::uint32_t kEventError = 0x40000;
inline constexpr std::uint32_t kEventUnclassed = 0x80000;
inline constexpr std::uint32_t kEventInfo = 0x100000;
inline constexpr std::uint32_t kEventOnDemand = 0x1000000;
inline constexpr std::uint32_t kEventFileNotScanned = 0x2000000;
inline constexpr std::uint32_t kEventRuleMatched = 0x4000000;
inline constexpr std::uint32_t kEventUpdateInfo = 0x8000000;
inline constexpr std::uint32_t kEventUpdateError = 0x10000000;
inline constexpr std::uint32_t kEventProductUpdate = 0x20000000;
inline constexpr std::uint32_t kEventReportGenerated = 0x40000000;

// Levels: bits 8 to 11. A word without any of the first three takes the level of its class.
inline constexpr std::uint32_t kLevelHigh = 0x100;
inline constexpr std::uint32_t kLevelMedium = 0x200;
inline constexpr std::uint32_t kLevelLow = 0x400;
inline constexpr std::uint32_t kLevelNone = 0x800;

// Opens the endpoint (no pipe), reads the levels and follows their changes. label: at most 31
// characters are kept. Counted. 0, or -1.
int LogClientInit(const char* label, std::uint32_t store);
// The last one delivers what has been posted if the daemon takes it at once, and waits no more than
// two seconds for a daemon that hangs.
void LogClientUninit();

// Sends one event: the word, then as many arguments as its kind reads (const char*; argument 12 of
// a Virus event is an int). Arguments 3 and 4 of a Virus event are char* that the call may cut at
// "(alert)". Any thread. 0 if the daemon has answered; -15 if the level is none; -1 for an unknown
// kind or a missing required argument; -13 if the message can't be built; else the status of the
// delivery.
int LogClientEvent(std::uint32_t event, ...);

// Takes one event for delivery by a thread of the client's own: the arguments of LogClientEvent,
// all copied, none changed. Events arrive in the order of their posts. While the daemon isn't there
// or hangs they wait for it, up to 10,000 and 4 MiB; later ones are lost, and counted in one
// Warning when the daemon takes events again. Each carries the time of its post (TagStamp, seconds
// since 1970). Any thread. 0 if it waits for delivery; -15, -1 and
// -13 as above; -6 if it is lost; -15 also when the client is down.
int LogClientPost(std::uint32_t event, ...);

// Whether lines for sessions and messages are wanted: the level of the class Info isn't none. Any
// thread.
bool LogClientTakesLines();
// Takes one such line (logclient/line.h) for delivery together with others: no later than some
// 200 ms after the first of them, in events of the kind Info whose TagInfoText is kLogLinesMark.
// While the daemon isn't there they wait as posted events do, each counting for one. Never waits.
// Any thread.
void LogClientLine(std::string_view line);
