#include "scanclient/reply.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "tagmsg/tags.h"

namespace {

constexpr std::uint32_t kEntryTextSize = 2047;

template <typename Record>
Record* Allocate(std::size_t count = 1) {
    return static_cast<Record*>(std::calloc(count, sizeof(Record)));
}

char* Duplicate(TagMsgNode* node, std::uint32_t tag) {
    void* text = nullptr;
    TagMsgDupAttr(node, tag, &text);  // what can't be had stays null
    return static_cast<char*>(text);
}

void ReadNumber(TagMsgNode* node, std::uint32_t tag, std::int32_t& number) {
    TagMsgCopyAttr(node, tag, &number, sizeof number);  // an absent number stays 0
}

template <typename Section>
void ReadSection(TagMsgNode* node, Section& section) {
    // The same section a second time: the last one counts.
    std::free(section.recipients);
    section.result = 0;
    section.actionMask = 0;
    ReadNumber(node, TagResultCode, section.result);
    ReadNumber(node, TagActionMask, section.actionMask);
    section.recipients = Duplicate(node, TagRecipients);
}

void FreeObjects(MailScanObject** objects) {
    if (objects == nullptr) return;
    for (MailScanObject** at = objects; *at != nullptr; ++at) {
        for (char* text : {(*at)->textA, (*at)->objectName, (*at)->textB, (*at)->textC})
            std::free(text);
        std::free(*at);
    }
    std::free(objects);
}

void ReadObjects(TagMsgNode* section, MailScanVerdict::Antivirus& antivirus) {
    FreeObjects(antivirus.objects);
    antivirus.objects = nullptr;
    const int count = TagMsgChildCount(section);
    if (count <= 0) return;
    antivirus.objects = Allocate<MailScanObject*>(static_cast<std::size_t>(count) + 1);
    if (antivirus.objects == nullptr) return;
    MailScanObject** place = antivirus.objects;
    for (TagMsgNode* child = section->firstChild; child != nullptr; child = child->nextSibling) {
        auto* object = Allocate<MailScanObject>();
        if (object == nullptr) return;
        object->textA = Duplicate(child, TagObjectTextA);
        object->objectName = Duplicate(child, TagObjectName);
        object->textB = Duplicate(child, TagObjectTextB);
        object->textC = Duplicate(child, TagObjectTextC);
        ReadNumber(child, TagResultCode, object->result);
        ReadNumber(child, TagObjectStatus, object->status);
        *place++ = object;
    }
}

void ReadNamedSection(MailScanRecord& record, TagMsgNode* child, const char* name) {
    const bool antivirus = std::strcmp(name, "Antivirus") == 0;
    const bool attachFilter = std::strcmp(name, "AttachFilter") == 0;
    const bool contentFilter = std::strcmp(name, "ContentFilter") == 0;
    const bool antispam = std::strcmp(name, "Antispam") == 0;
    if (!antivirus && !attachFilter && !contentFilter && !antispam) return;
    if (record.verdict == nullptr) record.verdict = Allocate<MailScanVerdict>();
    if (record.verdict == nullptr) return;
    if (antivirus) {
        ReadSection(child, record.verdict->antivirus);
        ReadObjects(child, record.verdict->antivirus);
    } else if (attachFilter) {
        ReadSection(child, record.verdict->attachFilter);
    } else if (contentFilter) {
        ReadSection(child, record.verdict->contentFilter);
    } else {
        ReadSection(child, record.verdict->antispam);
        ReadNumber(child, TagFilterValue, record.verdict->antispam.filterValue);
    }
}

int ReadEntryText(TagMsgNode* child, std::uint32_t tag, char** text) {
    char buffer[kEntryTextSize + 1] = "";
    if (const int status = TagMsgCopyAttr(child, tag, buffer, kEntryTextSize); status != TAGMSG_OK)
        return status;
    *text = strdup(buffer);
    return *text == nullptr ? TAGMSG_NO_MEMORY : TAGMSG_OK;
}

int FillEntry(TagMsgNode* child, MailScanEntry& entry) {
    int status = TagMsgCopyAttr(child, TagEntryCode, &entry.entryCode, sizeof entry.entryCode);
    if (status == TAGMSG_OK)
        status =
            TagMsgCopyAttr(child, TagFilterValue, &entry.filterValue, sizeof entry.filterValue);
    if (status == TAGMSG_OK) status = ReadEntryText(child, TagObjectName, &entry.objectName);
    if (status == TAGMSG_OK) status = ReadEntryText(child, TagMessage, &entry.message);
    return status;
}

void FreeEntries(MailScanEntry* entries) {
    while (entries != nullptr) {
        MailScanEntry* next = entries->next;
        std::free(entries->objectName);
        std::free(entries->message);
        std::free(entries);
        entries = next;
    }
}

int ReadChildren(MailScanRecord& record, TagMsgNode* root) {
    MailScanEntry* entries = nullptr;
    MailScanEntry** tail = &entries;
    for (TagMsgNode* child = root->firstChild; child != nullptr; child = child->nextSibling) {
        const void* name = nullptr;
        if (TagMsgPeekAttr(child, TagSection, &name) == TAGMSG_OK) {
            if (name != nullptr) ReadNamedSection(record, child, static_cast<const char*>(name));
            continue;
        }
        *tail = Allocate<MailScanEntry>();
        const int status = *tail == nullptr ? TAGMSG_NO_MEMORY : FillEntry(child, **tail);
        if (status != TAGMSG_OK) {
            FreeEntries(entries);
            return status;
        }
        tail = &(*tail)->next;
    }
    record.entries = entries;
    if (entries == nullptr) record.actionMask &= ~kScanMaskEntries;
    return TAGMSG_OK;
}

}  // namespace

int MailScanReadReply(MailScanRecord& record, TagMsgNode* root) {
    const int status =
        TagMsgCopyAttr(root, TagActionMask, &record.actionMask, sizeof record.actionMask);
    if (status != TAGMSG_OK) return status;
    return (record.actionMask & kScanMaskEntries) != 0 ? ReadChildren(record, root) : TAGMSG_OK;
}

void MailScanFree(MailScanRecord* record) {
    std::free(record->recipients);
    std::free(record->objectActions);
    std::free(record->messageActions);
    FreeEntries(record->entries);
    if (MailScanVerdict* verdict = record->verdict) {
        FreeObjects(verdict->antivirus.objects);
        for (char* text : {verdict->antivirus.recipients, verdict->attachFilter.recipients,
                           verdict->contentFilter.recipients, verdict->antispam.recipients})
            std::free(text);
        std::free(verdict);
    }
    *record = MailScanRecord{};
}
