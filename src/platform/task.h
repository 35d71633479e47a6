// Tasks: many courses of execution on few threads of the system. A task has a stack of its own and
// is written like a thread; whenever it waits, for sockets, events, pipes or a time, by the
// operations of this layer, its thread runs others. A burst of tasks costs no wake-ups of threads,
// and one that waits costs its stack.
//
// A task stays on its thread. What holds the thread up otherwise (a file, a mutex, a name service)
// holds up the tasks beside it, so: no lock is held across a wait, and what may take long is done
// by another thread while the task waits for it. Its last error (GetLastError, errno) is its
// thread's: it holds until the next wait.
#pragma once

#include <chrono>

namespace platform {

// Must not throw.
using TaskProcedure = void (*)(void* argument);
// Starts a task. False if there is no memory, or no thread, for it. Any thread.
bool StartTask(TaskProcedure procedure, void* argument);

bool InTask();
// Lets those tasks of the thread run that have something to do. Nothing outside of a task.
void YieldTask();
// Waits for the time to pass. Any thread, any task.
void SleepFor(std::chrono::milliseconds time);

}  // namespace platform
