// Events.
#include <map>
#include <mutex>
#include <string>

#include "platform/linux/wait/object.h"
#include "platform/sync.h"

using platform::NewObject;
using platform::ObjectOf;
using platform::ToHandle;
using platform::Waitable;

namespace {

// Named events of this process. An entry holds no reference: the event takes itself out when it
// goes.
struct NameTable {
    std::mutex mutex;
    std::map<std::string, Waitable*, std::less<>> events;  // guarded by mutex
};
NameTable& Names() {
    static NameTable& table = *new NameTable;  // never destroyed: threads may outlive the statics
    return table;
}

class NamedEvent final : public Waitable {
  public:
    NamedEvent(Kind kind, bool initial, std::string name)
        : Waitable(kind, initial), name_(std::move(name)) {}
    // The name goes with the last handle, under the table's lock, so that an open never meets a
    // dying event.
    void OnClose() override {
        const std::lock_guard lock(Names().mutex);
        if (--handles_ == 0) Names().events.erase(name_);
    }
    int handles_ = 1;  // guarded by the table's mutex

  private:
    const std::string name_;
};

}  // namespace

HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCSTR name) {
    const auto kind =
        manualReset != FALSE ? Waitable::Kind::kManualEvent : Waitable::Kind::kAutoEvent;
    const bool initial = initialState != FALSE;
    if (name == nullptr) return ToHandle(NewObject<Waitable>(kind, initial));
    if (HANDLE existing = OpenEventA(EVENT_ALL_ACCESS, FALSE, name))
        return platform::FailWith(existing, ERROR_ALREADY_EXISTS);
    const std::lock_guard lock(Names().mutex);
    auto* event = NewObject<NamedEvent>(kind, initial, name);
    if (event == nullptr) return nullptr;
    Names().events[name] = event;
    SetLastError(ERROR_SUCCESS);
    return ToHandle(event);
}

HANDLE OpenEventA(DWORD, BOOL, LPCSTR name) {
    const std::lock_guard lock(Names().mutex);
    const auto found = name == nullptr ? Names().events.end() : Names().events.find(name);
    if (found == Names().events.end()) return platform::Fail(ERROR_FILE_NOT_FOUND);
    found->second->AddRef();
    ++static_cast<NamedEvent*>(found->second)->handles_;
    return ToHandle(found->second);
}

BOOL SetEvent(HANDLE event) {
    Waitable* waitable = ObjectOf<Waitable>(event);
    if (waitable == nullptr) return FALSE;
    waitable->Set(true);
    return TRUE;
}

BOOL ResetEvent(HANDLE event) {
    Waitable* waitable = ObjectOf<Waitable>(event);
    if (waitable == nullptr) return FALSE;
    waitable->Set(false);
    return TRUE;
}
