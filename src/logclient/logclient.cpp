#include "logclient/logclient.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>
#include <string>

#include "lipc/deliver.h"
#include "lipc/lipc.h"
#include "lipc/outbox.h"
#include "logclient/gatherer.h"
#include "logclient/levels.h"
#include "logclient/line.h"
#include "platform/clock.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"
#include "text/ascii.h"
#include "trelis/keys/followed.h"
#include "trelis/keys/settings.h"

namespace {

constexpr char kEndpointName[] = "vtlogd";
constexpr trelis::Key kLevel{trelis::kLogLevelKey, "*"};
constexpr char kAlertMark[] = "(alert)";
constexpr std::uint32_t kKindBits = 0xFFFF0000;
constexpr std::uint32_t kOpenLevelBits = 0x700;
constexpr int kFailed = -1;
constexpr int kNotBuilt = -13;
constexpr int kNotWanted = -15;
// What a logger that answers takes at the end; one that hangs holds nobody up for longer.
constexpr std::chrono::milliseconds kStopLimit{2000};
constexpr int kArguments = 13;  // by their numbers: 2 to 12

std::atomic<int> g_users{0};
std::atomic<LIPCEndpoint*> g_endpoint{nullptr};
char g_label[32];  // written by the first LogClientInit, before any event

using Levels = std::array<std::uint32_t, std::size(kLogClasses)>;

// A word that is none leaves the level as it was. One call at a time.
std::shared_ptr<const Levels> ReadLevels() {
    static Levels levels = [] {
        Levels all;
        all.fill(kLevelHigh);
        return all;
    }();
    for (std::size_t i = 0; i < std::size(kLogClasses); ++i) {
        const std::string word = trelis::ReadText(kLevel, {kLogClasses[i].name});
        for (const LogLevel& level : kLogLevels) {
            if (EqualIgnoringCase(word, level.word)) levels[i] = level.bit;
        }
    }
    return std::make_shared<const Levels>(levels);
}

// Where one can't be made nobody waits for the others: the fallback goes without them too.
void MakeMissingLevels() {
    for (const LogClass& each : kLogClasses) {
        if (!trelis::ReadIfGiven(kLevel, {each.name}) &&
            TrelisSetValue(kLocalStore, kLevel.Path({each.name}).c_str(), kLevel.Row().fallback) !=
                0)
            return;
    }
}

// Made once and never destroyed: a session may ask when the client has gone.
trelis::Followed<Levels>& FollowedLevels() {
    static auto& levels = *new trelis::Followed<Levels>(trelis::kLogLevelKey, ReadLevels);
    return levels;
}

std::uint32_t LevelOf(std::uint32_t kind) {
    const std::shared_ptr<const Levels> levels = FollowedLevels().Current();
    if (levels == nullptr) return kLevelHigh;
    for (std::size_t i = 0; i < std::size(kLogClasses); ++i) {
        if (kLogClasses[i].kind == kind) return (*levels)[i];
    }
    return kLevelHigh;
}

// One attribute of a kind: the tag and the number of the argument that fills it.
struct Field {
    std::uint32_t tag;
    int argument;
};
struct Kind {
    std::uint32_t bit;
    int arguments;           // the last one that the kind reads
    std::uint32_t required;  // bit n: argument n
    std::span<const Field> fields;
};

constexpr std::uint32_t Bits(std::initializer_list<int> numbers) {
    std::uint32_t bits = 0;
    for (const int number : numbers) bits |= 1U << number;
    return bits;
}

constexpr int kNumberArgument = 12;  // the only one that is a number

constexpr Field kVirusFields[] = {{TagDetails, 2},     {TagFrom, 3},
                                  {TagRecipients, 4},  {TagPath, 5},
                                  {TagEventTextC, 6},  {TagHost, 7},
                                  {TagEventTextA, 8},  {TagStatusText, 9},
                                  {TagHostDetail, 10}, {TagNumberText, kNumberArgument},
                                  {TagLabel, 11}};
constexpr Field kTroubleFields[] = {{TagFrom, 2}, {TagRecipients, 3}, {TagPath, 4},
                                    {TagHost, 5}, {TagHostDetail, 6}, {TagMessage, 7}};
constexpr Field kUnclassedFields[] = {{TagEventTextB, 2}, {TagHost, 3}, {TagMessage, 4}};
constexpr Field kInfoFields[] = {{TagMessage, 3}, {TagInfoText, 2}};
constexpr Field kFileFields[] = {{TagPath, 2}, {TagMessage, 3}};
constexpr Field kRuleFields[] = {{TagMessage, 2},   {TagSender, 3},     {TagRecipients, 4},
                                 {TagHost, 5},      {TagEventTextA, 6}, {TagLabel, 7},
                                 {TagEventTextC, 8}};
constexpr Field kTextField[] = {{TagMessage, 2}};

constexpr Kind kKinds[] = {
    {kEventVirus, 12, Bits({2, 5, 6, 8, 9}), kVirusFields},
    {kEventWarning, 7, Bits({7}), kTroubleFields},
    {kEventError, 7, Bits({4, 7}), kTroubleFields},
    {kEventUnclassed, 4, Bits({2, 3, 4}), kUnclassedFields},
    {kEventInfo, 3, Bits({3}), kInfoFields},
    {kEventOnDemand, 3, Bits({3}), kInfoFields},
    {kEventFileNotScanned, 3, Bits({2, 3}), kFileFields},
    {kEventRuleMatched, 8, Bits({2, 3, 4, 5, 6, 7, 8}), kRuleFields},
    {kEventUpdateInfo, 2, Bits({2}), kTextField},
    {kEventUpdateError, 2, Bits({2}), kTextField},
    {kEventProductUpdate, 2, Bits({2}), kTextField},
    {kEventReportGenerated, 2, Bits({2}), kTextField},
};

// Cuts the text at the mark, in the caller's buffer. Whether it was there.
bool CutAtAlert(const char* text) {
    char* mark = text == nullptr ? nullptr : std::strstr(const_cast<char*>(text), kAlertMark);
    if (mark == nullptr) return false;
    *mark = '\0';
    return true;
}

int AddFields(TagMsgNode* root, const Kind& kind,
              const std::array<const char*, kArguments>& arguments, int number) {
    for (int i = 2; i < kNumberArgument; ++i) {
        if ((kind.required & (1U << i)) != 0 && arguments[static_cast<std::size_t>(i)] == nullptr)
            return kFailed;
    }
    bool alertFrom = false;
    bool alertTo = false;
    if (kind.bit == kEventVirus) {
        alertFrom = CutAtAlert(arguments[3]);
        alertTo = CutAtAlert(arguments[4]);
    }
    char numberText[20];
    std::snprintf(numberText, sizeof numberText, "%d", number);
    for (const Field& field : kind.fields) {
        const char* value = field.argument == kNumberArgument
                                ? numberText
                                : arguments[static_cast<std::size_t>(field.argument)];
        if (TagMsgAddAttr(root, field.tag, value) != TAGMSG_OK) return kNotBuilt;
    }
    if (kind.bit == kEventVirus &&
        (arguments[3] != nullptr || arguments[4] != nullptr || arguments[11] != nullptr)) {
        const char label[] = {'M', 'a', 'i', 'l', alertFrom ? '1' : '0', alertTo ? '1' : '0', '\0'};
        if (TagMsgAddAttr(root, TagAlertLabel, label) != TAGMSG_OK) return kNotBuilt;
    }
    return TAGMSG_OK;
}

// Whether an event is wanted, by the word's own level or its class's, which is put into the word.
bool Wanted(std::uint32_t& event) {
    if ((event & kOpenLevelBits) == 0) {
        event |= LevelOf(event & kKindBits);
    }
    return (event & kLevelNone) == 0;
}

// When the event was: a posted one may come late.
int AddStamp(TagMsgNode* root) {
    return TagMsgAddAttr(root, TagStamp, std::to_string(platform::UtcSeconds()).c_str());
}

// The event's flat form, from the word with its level and the arguments behind it. A posted one
// says when it was, and marks of an alert are cut in copies, not in the caller's texts.
int Build(std::uint32_t event, std::va_list list, bool posted, OwnedFlatForm& flat) {
    OwnedMessage message;
    const auto word = static_cast<std::int32_t>(event);
    if (TagMsgCreate(&message.root) != TAGMSG_OK ||
        TagMsgAddAttr(message.root, TagSource, g_label) != TAGMSG_OK ||
        TagMsgAddAttr(message.root, TagEventWord, &word) != TAGMSG_OK ||
        (posted && AddStamp(message.root) != TAGMSG_OK))
        return kNotBuilt;
    for (const Kind& kind : kKinds) {
        if (kind.bit != (event & kKindBits)) continue;
        // A caller passes as many arguments as the kind reads, and no more are taken.
        std::array<const char*, kArguments> arguments{};
        int number = 0;
        for (int i = 2; i <= kind.arguments; ++i) {
            if (i == kNumberArgument) {
                number = va_arg(list, int);
            } else {
                arguments[static_cast<std::size_t>(i)] = va_arg(list, const char*);
            }
        }
        std::array<std::string, kArguments> copies;
        for (const std::size_t i : {std::size_t{3}, std::size_t{4}}) {
            if (!posted || kind.bit != kEventVirus || arguments[i] == nullptr) continue;
            copies[i] = arguments[i];
            arguments[i] = copies[i].c_str();
        }
        const int status = AddFields(message.root, kind, arguments, number);
        return status == TAGMSG_OK ? TagMsgSerialize(message.root, &flat.data, &flat.length)
                                   : status;
    }
    return kFailed;
}

int BuildOwn(std::uint32_t event, OwnedFlatForm* flat, ...) {
    std::va_list list;
    va_start(list, flat);
    const int status = Build(event, list, true, *flat);
    va_end(list);
    return status;
}

// A Warning, at the level of its class.
LIPCOutbox::Request TellLost(std::uint64_t lost) {
    std::uint32_t event = kEventWarning;
    OwnedFlatForm flat;
    const std::string text = std::to_string(lost) + " events lost";
    if (!Wanted(event) || BuildOwn(event, &flat, nullptr, nullptr, nullptr, nullptr, nullptr,
                                   text.c_str()) != TAGMSG_OK)
        return {};
    const char* data = static_cast<const char*>(flat.data);
    return {data, data + flat.length};
}

// Made once and never destroyed: a session may post when the client has gone.
LIPCOutbox& Outbox() {
    static LIPCOutbox& outbox = *new LIPCOutbox;
    return outbox;
}

// What has been gathered becomes one event.
void PostLines(const std::string& lines, std::uint32_t count) {
    std::uint32_t event = kEventInfo;
    OwnedFlatForm flat;
    if (!Wanted(event)) return;
    if (BuildOwn(event, &flat, kLogLinesMark, lines.c_str()) == TAGMSG_OK) {
        Outbox().Post(flat.data, flat.length, count);
    } else {
        Outbox().CountLost(count);
    }
}

// As the outbox.
LineGatherer& Lines() {
    static LineGatherer& lines =
        *new LineGatherer(PostLines, [](std::uint32_t count) { Outbox().CountLost(count); });
    return lines;
}

}  // namespace

int LogClientInit(const char* label, std::uint32_t) {
    if (++g_users != 1) return 0;
    LIPCEndpoint* endpoint = nullptr;
    if (LIPCOpenClient(&endpoint, kEndpointName) != LIPC_OK) return kFailed;
    g_endpoint = endpoint;
    Outbox().Open(endpoint, TellLost, metrics::Queue::kLog);
    Lines().Open();
    std::snprintf(g_label, sizeof g_label, "%s", label != nullptr ? label : "");
    MakeMissingLevels();
    FollowedLevels().Load();
    return 0;
}

void LogClientUninit() {
    if (--g_users != 0) return;
    g_endpoint = nullptr;
    Lines().Close();
    Outbox().Close(kStopLimit);
    FollowedLevels().End();
}

int LogClientEvent(std::uint32_t event, ...) {
    if (!Wanted(event)) return kNotWanted;
    OwnedFlatForm flat;
    std::va_list list;
    va_start(list, event);
    const int status = Build(event, list, false, flat);
    va_end(list);
    return status == TAGMSG_OK ? LIPCDeliverWhenFree(g_endpoint, flat.data, flat.length) : status;
}

int LogClientPost(std::uint32_t event, ...) {
    if (!Wanted(event)) return kNotWanted;
    OwnedFlatForm flat;
    std::va_list list;
    va_start(list, event);
    const int status = Build(event, list, true, flat);
    va_end(list);
    return status == TAGMSG_OK ? Outbox().Post(flat.data, flat.length) : status;
}

bool LogClientTakesLines() {
    std::uint32_t event = kEventInfo;
    return Wanted(event);
}

void LogClientLine(std::string_view line) { Lines().Add(line); }
