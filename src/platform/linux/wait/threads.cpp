// Threads, and what each has of its own: its number and its last error.
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <new>

#include "platform/linux/wait/object.h"
#include "platform/sync.h"

using platform::Fail;
using platform::NewObject;
using platform::Reference;
using platform::Share;
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
    Reference<Waitable> ended;  // the thread's own
    DWORD id;
};

void* ThreadMain(void* argument) {
    const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(argument));
    t_threadId = start->id;
    // Not the one of the thread that has started it.
    pthread_setname_np(pthread_self(), program_invocation_short_name);
    start->procedure(start->argument);
    start->ended->Set(true);
    return nullptr;
}

}  // namespace

DWORD GetLastError() { return t_lastError; }
void SetLastError(DWORD error) { t_lastError = error; }

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, ULONG_PTR stackSize, LPTHREAD_START_ROUTINE procedure,
                    LPVOID argument, DWORD flags, DWORD* threadId) {
    if (procedure == nullptr || flags != 0) return Fail(ERROR_INVALID_PARAMETER);
    Reference<Waitable> ended(NewObject<Waitable>(Waitable::Kind::kManualEvent, false));
    if (ended == nullptr) return nullptr;
    const DWORD id = g_nextThreadId.fetch_add(1);
    std::unique_ptr<ThreadStart> start(
        new (std::nothrow) ThreadStart{procedure, argument, Share(ended.get()), id});
    pthread_attr_t attributes;
    if (start == nullptr || pthread_attr_init(&attributes) != 0)
        return Fail(ERROR_NOT_ENOUGH_MEMORY);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, stackSize != 0 ? stackSize : kDefaultStack);
    pthread_t thread;
    const bool started = pthread_create(&thread, &attributes, ThreadMain, start.get()) == 0;
    pthread_attr_destroy(&attributes);
    if (!started) return Fail(ERROR_NOT_ENOUGH_MEMORY);
    [[maybe_unused]] ThreadStart* const theThreads = start.release();
    if (threadId != nullptr) *threadId = id;
    return ToHandle(ended.release());
}

DWORD GetCurrentProcessId() { return static_cast<DWORD>(getpid()); }

DWORD GetCurrentThreadId() {
    if (t_threadId == 0) t_threadId = g_nextThreadId.fetch_add(1);
    return t_threadId;
}
