#include <cstdlib>
#include <cstring>
#include <span>
#include <string>

#include "scanclient/scanclient.h"
#include "tagmsg/tagmsg.h"

namespace {

struct Action {
    std::uint32_t bit;
    const char* word;
    bool exclusive;  // of these only the first one set gives a word
};

constexpr Action kObjectActions[] = {
    {0x01, "disinfect", false}, {0x02, "delete", false}, {0x20, "quarantine", false},
    {0x04, "ignore", true},     {0x08, "drop", true},    {0x10, "reject", true},
};
constexpr std::span<const Action> kMessageActions = std::span(kObjectActions).subspan(2);
constexpr char kIgnore[] = "ignore";

int SetActions(char** field, std::span<const Action> actions, std::uint32_t mask,
               const char* fallback) {
    std::string list;
    if (mask == 0) {
        list = fallback != nullptr ? fallback : kIgnore;
    } else {
        bool exclusiveSet = false;
        for (const Action& action : actions) {
            if ((mask & action.bit) == 0 || (action.exclusive && exclusiveSet)) continue;
            exclusiveSet = exclusiveSet || action.exclusive;
            if (!list.empty()) list += ';';
            list += action.word;
        }
        if (list.empty()) list = kIgnore;
    }
    std::free(*field);
    *field = strdup(list.c_str());
    return *field == nullptr ? TAGMSG_NO_MEMORY : 0;
}

}  // namespace

int MailScanSetObjectActions(MailScanRecord* record, std::uint32_t mask, const char* fallback) {
    return record == nullptr ? TAGMSG_BAD
                             : SetActions(&record->objectActions, kObjectActions, mask, fallback);
}

int MailScanSetMessageActions(MailScanRecord* record, std::uint32_t mask, const char* fallback) {
    return record == nullptr ? TAGMSG_BAD
                             : SetActions(&record->messageActions, kMessageActions, mask, fallback);
}
