#include "daemons/maild/walk/walk.h"

#include <sys/stat.h>

#include "daemons/maild/walk/walker.h"

namespace maild {

WalkResult WalkMessage(int file, Dots dots, const WalkLimits& limits,
                       std::span<PartSink* const> sinks) {
    WalkResult result;
    WalkState state{limits, sinks, result};
    struct stat info {};
    if (fstat(file, &info) != 0) {
        state.Stop(WalkEnd::kCantRead, "can't read the message");
    } else if (state.InTime()) {
        state.size = info.st_size;
        Walker(state, file, dots, nullptr, 0).WalkMessage({0, info.st_size});
    }
    for (PartSink* sink : sinks) sink->Done(result);
    return result;
}

}  // namespace maild
