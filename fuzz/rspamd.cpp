// Answers of rspamd and of spamd: whatever they are, what is made of them is bounded and can't
// break out of a header's line.
#include <cstdint>
#include <string_view>

#include "daemons/maild/antispam/findings.h"
#include "daemons/maild/antispam/headed.h"
#include "daemons/maild/antispam/rspamd.h"
#include "daemons/maild/antispam/spamd.h"

namespace {

void Look(const maild::SpamOpinion& opinion) {
    if (opinion.answered != opinion.why.empty()) __builtin_trap();
    if (!(opinion.score >= -maild::kLargestScore && opinion.score <= maild::kLargestScore))
        __builtin_trap();
    maild::SpamSettings settings;
    settings.tagScore = 1;
    const maild::Finding finding = maild::SpamFinding(settings, opinion);
    if (finding.headers.size() > 30) __builtin_trap();
    for (const auto& [name, value] : finding.headers) {
        if (name.size() + value.size() > 950) __builtin_trap();
        for (const char c : name + value) {
            if (c == '\0' || c == '\n' || c == '\r') __builtin_trap();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    Look(maild::ReadRspamd(bytes));
    maild::HeadedReply reply;
    if (maild::ReadHeaded(bytes, true, reply) != maild::Came::kWhole) return 0;
    Look(maild::ReadSpamd(reply));
    Look(maild::ReadRspamd(reply.body));
    return 0;
}
