// scanclient/: the client of the mail-scanning daemon vtmaild. A session fills in a record for a
// spooled message; MailScan sends it, keeps the session alive while it waits, and writes the answer
// into the record. The message itself does not travel: the daemon reads the spool file by its path.
//
// Order of calls: fill in the fields, both action lists, each recipient, MailScan, read the answer,
// MailScanFree (also after a failure). Any number of threads, each with its own record.
#pragma once

#include <cstdint>

// What the four sections of a verdict share. recipients is owned by the record; null if absent.
struct MailScanSection {
    std::int32_t result;
    std::int32_t actionMask;
    char* recipients;
};

// One object that the Antivirus section reports on. The texts are owned by the record, or null.
struct MailScanObject {
    char* textA;
    char* objectName;
    char* textB;
    char* textC;
    std::int32_t result;
    std::int32_t status;
};

struct MailScanVerdict {
    struct Antivirus : MailScanSection {
        MailScanObject** objects;  // ended by a null; null if there are none
    } antivirus;
    MailScanSection attachFilter;
    MailScanSection contentFilter;
    struct Antispam {
        std::int32_t result;
        std::int32_t actionMask;
        std::int32_t filterValue;
        char* recipients;
    } antispam;
};

// A child of the reply without a section name. The texts hold at most 2047 characters.
struct MailScanEntry {
    std::int32_t entryCode;
    char* objectName;
    std::int32_t filterValue;
    char* message;
    MailScanEntry* next;
};

// One scan. Zeroed by its owner before use ("caller": the caller's text, not freed here).
struct MailScanRecord {
    const char* path;         // caller
    const char* sender;       // caller
    char* recipients;         // joined by ';'
    const char* peerAddress;  // caller
    char extraText[256];
    std::int32_t agentId;
    std::int32_t actionMask;       // answer
    std::uint32_t timeoutSeconds;  // one wait slice; 0: 5 s
    int (*cancelCallback)(
        void* context);  // asked after each slice, on the calling thread; 0: go on
    void* cancelContext;
    char* objectActions;
    char* messageActions;
    std::int32_t scanSections;
    char numberText[4];
    std::int32_t paramA;
    std::int32_t paramB;
    MailScanVerdict* verdict;  // answer; null if it names no known section
    MailScanEntry* entries;    // answer
    // How the message came: 1 by DATA, dot-stuffed; 2 by BDAT, as it is; 0, unknown: nothing is
    // sent and the daemon expects either.
    std::int32_t transferForm;
    // caller; null or empty: nothing is sent
    const char* helo;   // what the client called itself
    const char* logId;  // of the message
};

// Bit of actionMask: before reading the children, that there are some; in the record's answer,
// entries.
inline constexpr std::int32_t kScanMaskEntries = 0x10;

// Opens the endpoint (no pipe): 0, or -1. Counted; MailScanUninit gives it back.
int MailScanInit();
void MailScanUninit();
// 0, or -3 without memory.
int MailScanAddRecipient(MailScanRecord* record, const char* recipient);
// Build the action lists from a mask. 0, -5 for a null record, -3 without memory.
int MailScanSetObjectActions(MailScanRecord* record, std::uint32_t mask, const char* fallback);
int MailScanSetMessageActions(MailScanRecord* record, std::uint32_t mask, const char* fallback);
// 0 with the answer in the record, or a negative status. Blocks until the answer has come or the
// scan is given up. A daemon whose connections are all taken is waited for as its answer is, with
// the callback asked after each slice.
int MailScan(MailScanRecord* record);
void MailScanFree(MailScanRecord* record);
