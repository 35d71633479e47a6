// Threads that stay when their work is done and take the next, for what would hold up a task's
// thread.
#pragma once

#include <functional>

#include "platform/sync.h"

// Does the work on another thread while the calling task waits; what it throws is thrown here.
// Outside of a task, or without a thread to be had, here and now.
void RunAside(const std::function<void()>& work);

// Runs the procedure at once, on a thread that earlier work has left or on a new one, which nobody
// has a handle of. The procedure must not throw. 0, or -1 if no thread can be had. Any thread.
int RunOnKeptThread(LPTHREAD_START_ROUTINE procedure, LPVOID argument);
