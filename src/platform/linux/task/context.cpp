#include "platform/linux/task/context.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif
#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

// The library's own switch makes a system call for the signals that a context blocks; here all have
// the same. What a function must leave as it was goes to the stack, and with the other stack comes
// what has been left there.
#ifdef __x86_64__
asm(R"(
    .pushsection .text
    .globl VantrelSwitchStack
    .hidden VantrelSwitchStack
    .type VantrelSwitchStack, @function
VantrelSwitchStack:
    pushq %rbp
    pushq %rbx
    pushq %r12
    pushq %r13
    pushq %r14
    pushq %r15
    subq $8, %rsp
    stmxcsr (%rsp)
    fnstcw 4(%rsp)
    movq %rsp, (%rdi)
    movq %rsi, %rsp
    ldmxcsr (%rsp)
    fldcw 4(%rsp)
    addq $8, %rsp
    popq %r15
    popq %r14
    popq %r13
    popq %r12
    popq %rbx
    popq %rbp
    ret
    .size VantrelSwitchStack, . - VantrelSwitchStack
    .popsection
)");
// Leaves the top of the calling stack in *from and goes on with the other.
extern "C" void VantrelSwitchStack(void** from, void* to);
#endif

namespace platform {
namespace {

// Taken from the system page by page as it is used. Sanitizers make frames larger.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kStackSize = std::size_t{1} << 20;
#else
constexpr std::size_t kStackSize = std::size_t{256} << 10;
#endif

std::size_t PageSize() {
    static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

}  // namespace

Stack::Stack() : memory_(nullptr) {
    void* const memory = mmap(nullptr, PageSize() + kStackSize, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED) return;
    // Stacks grow downwards.
    if (mprotect(memory, PageSize(), PROT_NONE) != 0) {
        munmap(memory, PageSize() + kStackSize);
        return;
    }
    memory_ = memory;
#if defined(__SANITIZE_ADDRESS__)
    __lsan_register_root_region(Bottom(), kStackSize);
#endif
}

Stack::~Stack() {
    if (memory_ == nullptr) return;
#if defined(__SANITIZE_ADDRESS__)
    __lsan_unregister_root_region(Bottom(), kStackSize);
#endif
    munmap(memory_, PageSize() + kStackSize);
}

void* Stack::Bottom() const { return static_cast<char*>(memory_) + PageSize(); }
std::size_t Stack::Size() { return kStackSize; }

Context::Context() {
#if defined(__SANITIZE_THREAD__)
    fiber_ = __tsan_get_current_fiber();
#endif
}

Context::~Context() {
#if defined(__SANITIZE_THREAD__)
    if (ours_) __tsan_destroy_fiber(fiber_);
#endif
}

void Context::Begin(const Stack& stack, void (*entry)()) {
#ifdef __x86_64__
    // As VantrelSwitchStack finds it: the two control words, six registers, where to go on, and for
    // those who walk up the stack no caller of that. The address of the last one is aligned as
    // behind a call.
    constexpr std::size_t kWords = 9;
    auto* const words = static_cast<std::uintptr_t*>(stack.Bottom()) +
                        Stack::Size() / sizeof(std::uintptr_t) - kWords;
    std::fill_n(words, kWords, 0);
    std::uint32_t vector = 0;
    std::uint16_t floating = 0;
    asm volatile("stmxcsr %0\n\tfnstcw %1" : "=m"(vector), "=m"(floating));
    words[0] = vector | std::uintptr_t{floating} << 32;
    words[7] = reinterpret_cast<std::uintptr_t>(entry);
    top_ = words;
#else
    getcontext(&context_);
    context_.uc_stack.ss_sp = stack.Bottom();
    context_.uc_stack.ss_size = Stack::Size();
    context_.uc_link = nullptr;
    makecontext(&context_, entry, 0);
#endif
    bottom_ = stack.Bottom();
    size_ = Stack::Size();
#if defined(__SANITIZE_THREAD__)
    fiber_ = __tsan_create_fiber(0);
    ours_ = true;
#endif
}

void Context::SwitchTo(Context& other, [[maybe_unused]] bool last) {
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_start_switch_fiber(last ? nullptr : &fakeStack_, other.bottom_, other.size_);
#endif
#if defined(__SANITIZE_THREAD__)
    __tsan_switch_to_fiber(other.fiber_, 0);
#endif
#ifdef __x86_64__
    VantrelSwitchStack(&top_, other.top_);
#else
    swapcontext(&context_, &other.context_);
#endif
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_finish_switch_fiber(fakeStack_, nullptr, nullptr);
#endif
}

void Context::Arrived([[maybe_unused]] Context& from) {
#if defined(__SANITIZE_ADDRESS__)
    // The thread's own stack is learned here: nobody else tells its bounds.
    __sanitizer_finish_switch_fiber(nullptr, &from.bottom_, &from.size_);
#endif
}

}  // namespace platform
