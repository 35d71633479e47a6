#include "platform/linux/task/context.h"

#include <sys/mman.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif
#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
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
    void* const memory =
        mmap(nullptr, PageSize() + kStackSize, PROT_READ | PROT_WRITE,
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
    getcontext(&context_);
    context_.uc_stack.ss_sp = stack.Bottom();
    context_.uc_stack.ss_size = Stack::Size();
    context_.uc_link = nullptr;
    makecontext(&context_, entry, 0);
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
    swapcontext(&context_, &other.context_);
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
