// A statistics record as the daemon keeps it, and its reading from a tagged message.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tagmsg/tags.h"

namespace stats {

// A longer text of a record is cut.
inline constexpr std::size_t kTextLimit = 64U << 10;

// A field that the sender left out is nothing.
struct Record {
    std::int64_t received = 0;  // UTC seconds
    std::optional<std::string> stamp;
    std::optional<std::string> sender;
    std::optional<std::string> recipients;  // joined by ';'
    std::optional<std::string> label;
    std::optional<std::string> textA;
    std::optional<std::string> textB;
    std::optional<std::string> details;
    // IPv4; the address's first byte is the lowest byte of the number.
    std::optional<std::int64_t> sourceHost;
    std::optional<std::int64_t> targetHost;
    std::optional<std::int64_t> agentId;
    std::optional<std::int64_t> serviceId;
    std::optional<std::int64_t> count;
    std::optional<std::int64_t> eventCode;
    std::optional<std::int64_t> value;
    std::optional<std::int64_t> actionMask;
    std::optional<std::int64_t> objectStatus;

    // Bytes that the record takes in memory, roughly.
    std::size_t Size() const;
};

// The sixteen fields: tag of the message, column of the table, member.
struct TextField {
    std::uint32_t tag;
    const char* column;
    std::optional<std::string> Record::*member;
};
struct NumberField {
    std::uint32_t tag;
    const char* column;
    std::optional<std::int64_t> Record::*member;
    bool isUnsigned;
};
inline constexpr TextField kTextFields[] = {
    {TagStamp, "stamp", &Record::stamp},
    {TagSender, "sender", &Record::sender},
    {TagStatRecipients, "recipients", &Record::recipients},
    {TagLabel, "label", &Record::label},
    {TagTextA, "text_a", &Record::textA},
    {TagTextB, "text_b", &Record::textB},
    {TagDetails, "details", &Record::details},
};
inline constexpr NumberField kNumberFields[] = {
    {TagSourceHost, "source_host", &Record::sourceHost, true},
    {TagTargetHost, "target_host", &Record::targetHost, true},
    {TagAgentId, "agent_id", &Record::agentId, true},
    {TagServiceId, "service_id", &Record::serviceId, false},
    {TagCount, "count", &Record::count, false},
    {TagEventCode, "event_code", &Record::eventCode, false},
    {TagValue, "value", &Record::value, false},
    {TagActionMask, "action_mask", &Record::actionMask, false},
    {TagObjectStatus, "object_status", &Record::objectStatus, false},
};

// Reads a flat form. Nothing if it is no tagged message; `received` is the caller's.
std::optional<Record> ParseRecord(const void* data, std::uint32_t length);

}  // namespace stats
