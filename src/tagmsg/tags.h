// The tags of all messages in use. Low byte: the type of the value (0 text, 1 integer).
#pragma once

#include <cstdint>

inline constexpr std::uint32_t TagSource = 0x0000;
inline constexpr std::uint32_t TagAlertLabel = 0x0100;
inline constexpr std::uint32_t TagEntryCode = 0x0101;
inline constexpr std::uint32_t TagPath = 0x0200;
inline constexpr std::uint32_t TagDetails = 0x0300;
inline constexpr std::uint32_t TagStatusText = 0x0400;
inline constexpr std::uint32_t TagObjectStatus = 0x0401;
inline constexpr std::uint32_t TagObjectName = 0x0500;
inline constexpr std::uint32_t TagObjectTextA = 0x0700;
inline constexpr std::uint32_t TagResultCode = 0x0801;
inline constexpr std::uint32_t TagFrom = 0x0E00;
inline constexpr std::uint32_t TagRecipients = 0x0F00;
inline constexpr std::uint32_t TagSender = 0x1300;
inline constexpr std::uint32_t TagActionMask = 0x1401;
inline constexpr std::uint32_t TagAgentId = 0x1501;
inline constexpr std::uint32_t TagFilterValue = 0x1601;
inline constexpr std::uint32_t TagMessage = 0x1700;
inline constexpr std::uint32_t TagEventTextA = 0x1800;
inline constexpr std::uint32_t TagEventTextB = 0x1900;
inline constexpr std::uint32_t TagLabel = 0x1B00;
inline constexpr std::uint32_t TagEventTextC = 0x1E00;
inline constexpr std::uint32_t TagNumberText = 0x1F00;
inline constexpr std::uint32_t TagEventWord = 0x2301;
inline constexpr std::uint32_t TagHost = 0x2500;
inline constexpr std::uint32_t TagHostDetail = 0x2600;
inline constexpr std::uint32_t TagPeerAddress = 0x2800;
inline constexpr std::uint32_t TagExtraText = 0x3100;
inline constexpr std::uint32_t TagInfoText = 0x3200;
inline constexpr std::uint32_t TagPollInterval = 0x3301;
inline constexpr std::uint32_t TagObjectActions = 0x3600;
inline constexpr std::uint32_t TagMessageActions = 0x3700;
inline constexpr std::uint32_t TagSection = 0x3800;
inline constexpr std::uint32_t TagObjectTextB = 0x3900;
inline constexpr std::uint32_t TagObjectTextC = 0x3A00;
inline constexpr std::uint32_t TagScanParamA = 0x3B01;
inline constexpr std::uint32_t TagScanParamB = 0x3C01;
inline constexpr std::uint32_t TagScanSections = 0x3E01;
// How a message to be scanned came: 1 by DATA, dot-stuffed as on the wire; 2 by BDAT, as it is.
inline constexpr std::uint32_t TagTransferForm = 0x3F01;
// What the client of a message to be scanned has called itself.
inline constexpr std::uint32_t TagHelo = 0x4000;
inline constexpr std::uint32_t TagStamp = 0x4100;
inline constexpr std::uint32_t TagSourceHost = 0x4101;
inline constexpr std::uint32_t TagTargetHost = 0x4201;
inline constexpr std::uint32_t TagServiceId = 0x4301;
inline constexpr std::uint32_t TagStatRecipients = 0x4400;
inline constexpr std::uint32_t TagCount = 0x4501;
inline constexpr std::uint32_t TagTextA = 0x4600;
inline constexpr std::uint32_t TagTextB = 0x4700;
inline constexpr std::uint32_t TagEventCode = 0x4801;
inline constexpr std::uint32_t TagValue = 0x4901;
// The id that a message to be scanned has in the log.
inline constexpr std::uint32_t TagLogId = 0x4A00;
