#include "scanclient/engines.h"

#include <cstdint>

#include "lipc/lipc.h"
#include "tagmsg/owned.h"
#include "tagmsg/tags.h"

namespace {

constexpr std::int32_t kAnswerMs = 10000;

std::string TextOf(TagMsgNode* node, std::uint32_t tag) {
    const void* found = nullptr;
    return TagMsgPeekAttr(node, tag, &found) == TAGMSG_OK && found != nullptr
               ? std::string(static_cast<const char*>(found))
               : std::string();
}

std::vector<EngineState> ReadStates(TagMsgNode* root) {
    std::vector<EngineState> states;
    const int count = TagMsgChildCount(root);
    for (int i = 0; i < count; ++i) {
        TagMsgNode* engine = nullptr;
        if (TagMsgGetChild(root, &engine, i) != TAGMSG_OK) break;
        EngineState state{TextOf(engine, TagObjectName), TextOf(engine, TagHost),
                          TextOf(engine, TagStatusText), TextOf(engine, TagInfoText), 0};
        std::int32_t outstanding = 0;
        TagMsgCopyAttr(engine, TagCount, &outstanding, sizeof outstanding);
        state.outstanding = outstanding;
        states.push_back(std::move(state));
    }
    return states;
}

}  // namespace

bool AskForEngines(std::vector<EngineState>& states) {
    const TagMsgField fields[] = {{TagSection, kEnginesSection}};
    OwnedFlatForm request;
    LIPCEndpoint* endpoint = nullptr;
    if (TagMsgFlatten(fields, request) != TAGMSG_OK ||
        LIPCOpenClient(&endpoint, "vtmaild") != LIPC_OK)
        return false;
    LIPCConnection* connection = nullptr;
    const void* reply = nullptr;
    std::uint32_t length = 0;
    std::uint64_t turn = 0;
    // All its threads may be busy with scans.
    const int status = LIPCRequestInTurn(endpoint, &connection, request.data, request.length,
                                         &reply, &length, kAnswerMs, &turn);
    OwnedMessage answer;
    const bool answered =
        status == LIPC_OK && reply != nullptr && answer.Parse(reply, length) == TAGMSG_OK;
    if (answered) states = ReadStates(answer.root);
    if (connection != nullptr && (status == LIPC_OK || status == LIPC_TIMED_OUT))
        LIPCRelease(endpoint, connection);
    LIPCClose(endpoint);
    return answered;
}
