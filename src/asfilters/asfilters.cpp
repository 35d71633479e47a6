#include "asfilters/asfilters.h"

#include <mutex>
#include <new>
#include <utility>

#include "asfilters/core.h"

namespace {

struct Module {
    std::mutex mutex;
    std::shared_ptr<asfilters::CASFilters> instance;  // guarded by mutex
};
Module& State() {
    static Module& module = *new Module;  // never destroyed: sessions may outlive the statics
    return module;
}

}  // namespace

int CreateASFilters() {
    const std::lock_guard lock(State().mutex);
    if (State().instance != nullptr) return 0;
    try {
        State().instance = std::make_shared<CASFiltersCore>();
        return 0;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

asfilters::CASFilters* GetASFilters() {
    const std::lock_guard lock(State().mutex);
    return State().instance.get();
}

std::shared_ptr<asfilters::CASFilters> ShareASFilters() {
    const std::lock_guard lock(State().mutex);
    return State().instance;
}

int DestroyASFilters() {
    std::shared_ptr<asfilters::CASFilters> last;
    const std::lock_guard lock(State().mutex);
    last = std::exchange(State().instance, nullptr);
    return 0;
}
