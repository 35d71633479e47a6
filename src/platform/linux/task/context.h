// Inside platform/: a stack for each task, and the switch from one to another, which the sanitizers
// are told of.
#pragma once

#include <cstddef>

#ifndef __x86_64__
#include <ucontext.h>
#endif

namespace platform {

// Memory for a stack, with a page behind its end that nobody may touch.
class Stack {
  public:
    Stack();
    Stack(const Stack&) = delete;
    Stack& operator=(const Stack&) = delete;
    ~Stack();
    // False without memory.
    explicit operator bool() const { return memory_ != nullptr; }
    void* Bottom() const;
    static std::size_t Size();

  private:
    void* memory_;
};

// Where a thread, or a task, goes on. A thread's own context has no stack of ours.
class Context {
  public:
    Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    ~Context();

    // Where it will begin; the entry must not return.
    void Begin(const Stack& stack, void (*entry)());
    // From this one, which runs, to the other; returns when somebody switches back. `last`: nobody
    // will.
    void SwitchTo(Context& other, bool last);
    // First thing on a new stack, with the context that has switched to it.
    void Arrived(Context& from);

  private:
#ifdef __x86_64__
    void* top_ = nullptr;  // of the stack, with the registers on it
#else
    ucontext_t context_{};
#endif
    const void* bottom_ = nullptr;  // of its stack, as the next
    std::size_t size_ = 0;
    void* fakeStack_ = nullptr;  // the address sanitizer's
    void* fiber_ = nullptr;      // the thread sanitizer's
    bool ours_ = false;          // fiber_ was made here
};

}  // namespace platform
