// libmagic's type of a file.
#include <magic.h>

#include <memory>

#include "daemons/maild/attachments/realtype.h"
#include "daemons/maild/log.h"

namespace maild {

namespace {

struct Closed {
    void operator()(magic_set* handle) const { magic_close(handle); }
};
using Handle = std::unique_ptr<magic_set, Closed>;

// Archives are looked into elsewhere; the bounds keep a made-up file from costing much.
Handle Open() {
    Handle handle(magic_open(MAGIC_MIME_TYPE | MAGIC_NO_CHECK_COMPRESS));
    if (handle == nullptr) return nullptr;
    std::size_t bytes = RealType::kHead;
    std::size_t regex = 4096;
    std::size_t depth = 20;
    magic_setparam(handle.get(), MAGIC_PARAM_BYTES_MAX, &bytes);
    magic_setparam(handle.get(), MAGIC_PARAM_REGEX_MAX, &regex);
    magic_setparam(handle.get(), MAGIC_PARAM_INDIR_MAX, &depth);
    if (magic_load(handle.get(), nullptr) == 0) return handle;
    static const bool told = [] {
        Log({.kind = kEventWarning,
             .text = "libmagic can't read its data: rules on RealType know fewer types"});
        return true;
    }();
    static_cast<void>(told);
    return nullptr;
}

}  // namespace

std::string MagicType(std::string_view head) {
    thread_local const Handle handle = Open();
    if (handle == nullptr || head.empty()) return {};
    const char* const type = magic_buffer(handle.get(), head.data(), head.size());
    return type == nullptr ? std::string() : type;
}

}  // namespace maild
