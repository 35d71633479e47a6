// A flat form from a daemon: parsed, read as a scan reply, and written again.
#include <cstdint>
#include <cstdlib>

#include "scanclient/reply.h"
#include "scanclient/scanclient.h"
#include "tagmsg/tagmsg.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    TagMsgNode* root = nullptr;
    if (TagMsgParse(&root, data, static_cast<std::int32_t>(size)) != TAGMSG_OK) return 0;
    MailScanRecord record{};
    MailScanReadReply(record, root);
    MailScanFree(&record);
    void* flat = nullptr;
    std::uint32_t length = 0;
    if (TagMsgSerialize(root, &flat, &length) == TAGMSG_OK && length != TagMsgSize(root) + 4)
        std::abort();
    std::free(flat);
    TagMsgFree(root, 1, 1);
    return 0;
}
