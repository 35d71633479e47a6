// Inside platform/: how a documented operation fails: the thread's last error, and what it gives.
#pragma once

#include "platform/types.h"

namespace platform {

// `return Fail(error);` gives FALSE, or null where the operation gives a pointer.
class Fail {
  public:
    explicit Fail(DWORD error) { SetLastError(error); }
    operator BOOL() const { return FALSE; }
    template <class Type>
    operator Type*() const {
        return nullptr;
    }
};

// The same where it gives something else.
template <class Result>
Result FailWith(Result result, DWORD error) {
    SetLastError(error);
    return result;
}

}  // namespace platform
