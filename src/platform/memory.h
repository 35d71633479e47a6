// The process's memory allocator.
#pragma once

namespace platform {

// For programs with many short-lived threads: few arenas, and freed memory goes back to the system.
// First thing in main.
void TuneAllocator();
// Gives freed memory back now.
void TrimAllocator();

}  // namespace platform
