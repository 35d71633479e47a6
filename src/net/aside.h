// Work that would hold up a task's thread is done by other threads, which stay for the next.
#pragma once

#include <functional>

// There are so many of these threads and no more: work waits for one, but not for ever. What can't
// wait has one more if need be: it is for few, for the host's loop for example, on which all
// depend.
enum class Turn { kInLine, kAtOnce };
// Does the work on another thread while the calling task waits; what it throws is thrown here.
// Outside of a task it is done here and now. False if there is no thread for it; it is not done
// then.
bool RunAside(const std::function<void()>& work, Turn turn = Turn::kInLine);
