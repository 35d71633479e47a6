// Threads, and what each has of its own: its number and its last error.
#include <pthread.h>

#include <atomic>
#include <new>

#include "platform/linux/wait/object.h"
#include "platform/sync.h"

using platform::ToHandle;
using platform::Waitable;

namespace {

// Half of what the platform's own default is; small enough that the C library keeps the stacks of
// ended threads for the next ones instead of giving each back to the system.
constexpr ULONG_PTR kDefaultStack = ULONG_PTR{512} * 1024;

thread_local DWORD t_lastError = 0;
std::atomic<DWORD> g_nextThreadId{1};
thread_local DWORD t_threadId = 0;

struct ThreadStart {
    LPTHREAD_START_ROUTINE procedure;
    LPVOID argument;
    Waitable* ended;
    DWORD id;
};

void* ThreadMain(void* argument) {
    const ThreadStart start = *static_cast<ThreadStart*>(argument);
    delete static_cast<ThreadStart*>(argument);
    t_threadId = start.id;
    start.procedure(start.argument);
    start.ended->Signal(1, nullptr);
    start.ended->Release();
    return nullptr;
}

}  // namespace

DWORD GetLastError() { return t_lastError; }
void SetLastError(DWORD error) { t_lastError = error; }

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, ULONG_PTR stackSize, LPTHREAD_START_ROUTINE procedure,
                    LPVOID argument, DWORD flags, DWORD* threadId) {
    if (procedure == nullptr || flags != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto* ended = new (std::nothrow) Waitable(Waitable::Kind::kManualEvent, 0, 1);
    auto* start =
        new (std::nothrow) ThreadStart{procedure, argument, ended, g_nextThreadId.fetch_add(1)};
    const DWORD id = start != nullptr ? start->id : 0;
    pthread_attr_t attributes;
    bool started = false;
    if (ended != nullptr && start != nullptr && pthread_attr_init(&attributes) == 0) {
        ended->AddRef();  // the thread's own
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        pthread_attr_setstacksize(&attributes, stackSize != 0 ? stackSize : kDefaultStack);
        pthread_t thread;
        started = pthread_create(&thread, &attributes, ThreadMain, start) == 0;
        pthread_attr_destroy(&attributes);
        if (!started) ended->Release();
    }
    if (!started) {
        delete start;
        if (ended != nullptr) ended->Release();
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (threadId != nullptr) *threadId = id;
    return ToHandle(ended);
}

DWORD GetCurrentThreadId() {
    if (t_threadId == 0) t_threadId = g_nextThreadId.fetch_add(1);
    return t_threadId;
}
