// A thread that gets no memory any more. For one file of a program: it has the program's operators.
#pragma once

#include <cstdlib>
#include <new>

// The address sanitizer wants to have memory for itself.
#ifndef __SANITIZE_ADDRESS__
inline thread_local bool t_poor = false;

// Not inline: the compiler would miss the pairs.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = t_poor ? nullptr : std::malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
#endif
