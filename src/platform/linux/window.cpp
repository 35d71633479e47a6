#include "platform/window.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/fail.h"
#include "platform/linux/wait/object.h"
#include "platform/sync.h"

namespace {

using Clock = std::chrono::steady_clock;

struct AsyncSocket {
    SOCKET socket;
    HWND window;
    UINT message;
    bool posted;  // a notification waits in the queue: no further one until it is taken
};

// The objects of the last combined wait, which as a rule are those of the next.
struct StandingWait {
    explicit StandingWait(std::span<platform::Waitable* const> waited)
        : objects(waited.begin(), waited.end()) {
        for (platform::Waitable* each : waited) kept.push_back(platform::Share(each));
    }
    const std::vector<platform::Waitable*> objects;
    std::vector<platform::Reference<platform::Waitable>> kept;
    platform::WaitSet set{objects, true};
};

// One a thread that uses messages. Other threads reach it through a window only, to post.
struct MessageQueue {
    std::mutex mutex;
    std::deque<MSG> messages;  // guarded by mutex
    platform::Waitable filled{platform::Waitable::Kind::kManualEvent,
                              false};  // set while messages isn't empty
    std::vector<AsyncSocket> sockets;  // the owning thread alone
    std::vector<HWND> windows;         // the owning thread alone: its own, deleted at its end
    Clock::time_point heldUntil{};     // the owning thread alone
    std::optional<StandingWait> wait;  // the owning thread alone

    void Post(const MSG& message) {
        const std::lock_guard lock(mutex);
        messages.push_back(message);
        filled.Set(true);
    }
};

// A thread's windows go with it, as its queue does.
struct QueueOfThread {
    std::shared_ptr<MessageQueue> queue;
    QueueOfThread() = default;
    QueueOfThread(const QueueOfThread&) = delete;
    QueueOfThread& operator=(const QueueOfThread&) = delete;
    ~QueueOfThread();
};
thread_local QueueOfThread t_thread;

std::shared_ptr<MessageQueue>& ThreadQueue() {
    if (t_thread.queue == nullptr) t_thread.queue = std::make_shared<MessageQueue>();
    return t_thread.queue;
}

struct ClassTable {
    std::mutex mutex;
    std::map<std::string, WNDPROC, std::less<>> procedures;  // guarded by mutex
};
ClassTable& Classes() {
    static ClassTable& table = *new ClassTable;
    return table;
}

}  // namespace

struct WindowRecord {
    WNDPROC procedure;
    std::shared_ptr<MessageQueue> queue;
    LONG_PTR userValue;
};

QueueOfThread::~QueueOfThread() {
    if (queue == nullptr) return;
    for (HWND window : std::exchange(queue->windows, {})) delete window;
}

ATOM RegisterClassA(const WNDCLASSA* windowClass) {
    if (windowClass == nullptr || windowClass->lpszClassName == nullptr ||
        windowClass->lpfnWndProc == nullptr)
        return 0;
    const std::lock_guard lock(Classes().mutex);
    const bool added =
        Classes().procedures.emplace(windowClass->lpszClassName, windowClass->lpfnWndProc).second;
    return static_cast<ATOM>(added ? Classes().procedures.size() : 0);
}

HWND CreateWindowExA(DWORD, LPCSTR className, LPCSTR, DWORD, int, int, int, int, HWND, void*,
                     HINSTANCE, LPVOID) {
    WNDPROC procedure = nullptr;
    {
        const std::lock_guard lock(Classes().mutex);
        const auto found = className == nullptr ? Classes().procedures.end()
                                                : Classes().procedures.find(className);
        if (found == Classes().procedures.end()) return nullptr;
        procedure = found->second;
    }
    HWND window = new (std::nothrow) WindowRecord{procedure, ThreadQueue(), 0};
    if (window == nullptr) return nullptr;
    window->queue->windows.push_back(window);
    procedure(window, WM_CREATE, 0, 0);
    return window;
}

BOOL DestroyWindow(HWND window) {
    if (window == nullptr) return FALSE;
    window->procedure(window, WM_DESTROY, 0, 0);
    MessageQueue& queue = *window->queue;
    std::erase_if(queue.sockets,
                  [window](const AsyncSocket& entry) { return entry.window == window; });
    {
        const std::lock_guard lock(queue.mutex);
        std::erase_if(queue.messages,
                      [window](const MSG& message) { return message.hwnd == window; });
        if (queue.messages.empty()) queue.filled.Set(false);
    }
    std::erase(queue.windows, window);
    if (queue.windows.empty()) queue.wait.reset();
    delete window;
    return TRUE;
}

LONG_PTR SetWindowLongPtrA(HWND window, int index, LONG_PTR value) {
    if (window == nullptr || index != GWLP_USERDATA) return 0;
    return std::exchange(window->userValue, value);
}

LONG_PTR GetWindowLongPtrA(HWND window, int index) {
    return window == nullptr || index != GWLP_USERDATA ? 0 : window->userValue;
}

LRESULT DefWindowProcA(HWND, UINT, WPARAM, LPARAM) { return 0; }

BOOL PostMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (window == nullptr) return FALSE;
    window->queue->Post({window, message, wParam, lParam});
    return TRUE;
}

void PostQuitMessage(int exitCode) {
    ThreadQueue()->Post({nullptr, WM_QUIT, static_cast<WPARAM>(exitCode), 0});
}

BOOL PeekMessageA(MSG* message, HWND window, UINT first, UINT last, UINT remove) {
    MessageQueue& queue = *ThreadQueue();
    const std::lock_guard lock(queue.mutex);
    const auto found =
        std::find_if(queue.messages.begin(), queue.messages.end(), [&](const MSG& entry) {
            return (window == nullptr || entry.hwnd == window) &&
                   ((first == 0 && last == 0) || (entry.message >= first && entry.message <= last));
        });
    if (found == queue.messages.end()) return FALSE;
    *message = *found;
    if ((remove & PM_REMOVE) == 0) return TRUE;
    queue.messages.erase(found);
    if (queue.messages.empty()) queue.filled.Set(false);
    for (AsyncSocket& entry : queue.sockets) {
        if (static_cast<WPARAM>(entry.socket) == message->wParam &&
            entry.message == message->message)
            entry.posted = false;
    }
    return TRUE;
}

BOOL TranslateMessage(const MSG*) { return FALSE; }

LRESULT DispatchMessageA(const MSG* message) {
    return message->hwnd == nullptr ? 0
                                    : message->hwnd->procedure(message->hwnd, message->message,
                                                               message->wParam, message->lParam);
}

int WSAAsyncSelect(SOCKET socket, HWND window, UINT message, long mask) {
    ForgetAsyncSocket(socket);
    if (mask == 0) return 0;
    const int flags = fcntl(socket, F_GETFL);
    if (flags < 0 || fcntl(socket, F_SETFL, flags | O_NONBLOCK) < 0 || mask != FD_ACCEPT ||
        window == nullptr)
        return -1;
    window->queue->sockets.push_back({socket, window, message, false});
    return 0;
}

void ForgetAsyncSocket(SOCKET socket) {
    const auto& queue = t_thread.queue;
    if (queue == nullptr) return;  // a session's thread has no queue and needs none
    std::erase_if(queue->sockets,
                  [socket](const AsyncSocket& entry) { return entry.socket == socket; });
}

void HoldAsyncSockets() {
    if (t_thread.queue != nullptr)
        t_thread.queue->heldUntil = Clock::now() + std::chrono::milliseconds(100);
}

DWORD MsgWaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll,
                                DWORD milliseconds, DWORD) {
    std::array<platform::Waitable*, MAXIMUM_WAIT_OBJECTS> objects;
    if (count >= MAXIMUM_WAIT_OBJECTS || waitAll != FALSE)
        return platform::FailWith(WAIT_FAILED, ERROR_INVALID_PARAMETER);
    for (DWORD i = 0; i < count; ++i) {
        objects[i] = platform::ObjectOf<platform::Waitable>(handles[i]);
        if (objects[i] == nullptr) return WAIT_FAILED;
    }
    MessageQueue& queue = *ThreadQueue();
    objects[count] = &queue.filled;
    const std::span waited(objects.data(), count + 1);
    if (!queue.wait || !std::ranges::equal(queue.wait->objects, waited)) queue.wait.emplace(waited);
    const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        std::array<pollfd, MAXIMUM_WAIT_OBJECTS> extra;
        std::array<AsyncSocket*, MAXIMUM_WAIT_OBJECTS> owners;
        std::size_t watched = 0;
        const auto now = Clock::now();
        const bool held = now < queue.heldUntil;
        for (AsyncSocket& entry : queue.sockets) {
            if (entry.posted || held || watched == extra.size()) continue;
            extra[watched] = {entry.socket, POLLIN, 0};
            owners[watched++] = &entry;
        }
        DWORD wait = milliseconds;
        if (milliseconds != INFINITE) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now).count();
            wait = static_cast<DWORD>(std::max<long long>(left, 0));
        }
        if (held) wait = std::min<DWORD>(wait, 100);
        const DWORD result = queue.wait->set.Wait(std::span(extra.data(), watched), wait);
        if (result <= count || result == WAIT_FAILED) return result;
        if (result == WAIT_TIMEOUT) {
            if (milliseconds != INFINITE && Clock::now() >= end) return WAIT_TIMEOUT;
            continue;
        }
        for (std::size_t i = 0; i < watched; ++i) {
            if (extra[i].revents == 0) continue;
            owners[i]->posted = true;
            queue.Post({owners[i]->window, owners[i]->message,
                        static_cast<WPARAM>(owners[i]->socket), FD_ACCEPT});
        }
    }
}
