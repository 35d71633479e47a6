// Threads that stay when their work is done and take the next: a burst of connections costs no burst
// of thread starts.
#pragma once

#include "platform/sync.h"

// Runs the procedure at once, on a thread that earlier work has left or on a new one, which nobody
// has a handle of. The procedure must not throw. 0, or -1 if no thread can be had. Any thread.
int RunOnKeptThread(LPTHREAD_START_ROUTINE procedure, LPVOID argument);
