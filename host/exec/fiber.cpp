#include "host/exec/fiber.h"

#include <boost/context/detail/fcontext.hpp>
#include <cxxabi.h>
#include <sys/mman.h>
#include <unistd.h>

#include "host/exec/sanitizers.h"
#include "host/exec/shortage.h"
#include "host/exec/task.h"
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif
#ifdef __SANITIZE_THREAD__
#include <sanitizer/tsan_interface.h>
#endif

namespace exec
{

namespace
{

// Only pages that a task has touched use memory, so a large stack is cheap. A task that loads or unloads a module needs
// the most: the dynamic linker puts arrays of all loaded images on the task's stack, about 10 bytes for each image.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t stack_bytes = size_t{1024} * 1024; // instrumented frames are larger
#else
constexpr size_t stack_bytes = size_t{512} * 1024;
#endif

// A guard page made with mprotect() splits the mapping of its stack. A process may have only so many mappings
// (vm.max_map_count). Therefore only this many stacks get such a guard. All stacks run the same code, so an overflow
// that happens again and again also happens on a stack with a guard.
constexpr size_t split_stacks_limit = 4096;

// Makes every access to the lowest page of a stack end in SIGSEGV. Since Linux 6.13, madvise() can mark such a page in
// the page table, which splits no mapping. On an older Linux, mprotect() makes the page a mapping of its own. There, a
// stack gets no guard if `stack_count` is above the limit. Returns false if mprotect() fails.
bool install_guard(void* page, size_t bytes, size_t stack_count)
{
    constexpr int guard_install = 102; // MADV_GUARD_INSTALL, which older headers lack
    if (madvise(page, bytes, guard_install) == 0 || stack_count > split_stacks_limit) return true;
    return mprotect(page, bytes, PROT_NONE) == 0;
}

constexpr const char* no_memory = "no memory is left for the stack of a task: free some, or run fewer hosts";

} // namespace

fiber_stack_pool::~fiber_stack_pool()
{
    if (last_current_.mapping) free_.push_back(last_current_);
    for (const fiber_stack& stack : free_) munmap(stack.mapping, stack.mapped_bytes);
}

fiber_stack fiber_stack_pool::take()
{
    if (!free_.empty()) {
        const fiber_stack stack = free_.back();
        free_.pop_back();
        return stack;
    }
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    fiber_stack stack;
    stack.mapped_bytes = stack_bytes + page;
    stack.mapping = mmap(nullptr, stack.mapped_bytes, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (stack.mapping == MAP_FAILED) throw_shortage(no_memory);
    // A huge page would span several stacks, and use memory for all of them.
    madvise(stack.mapping, stack.mapped_bytes, MADV_NOHUGEPAGE);
    if (!install_guard(stack.mapping, page, ++stack_count_)) {
        munmap(stack.mapping, stack.mapped_bytes);
        throw_shortage(no_memory);
    }
    stack.bottom = static_cast<char*>(stack.mapping) + page;
    stack.bytes = stack_bytes;
    return stack;
}

void fiber_stack_pool::put(fiber_stack stack)
{
#ifdef __SANITIZE_ADDRESS__
    // AddressSanitizer marks parts of the frames of running functions. The last functions of the fiber have never
    // returned, so their marks are still set.
    __asan_unpoison_memory_region(stack.bottom, stack.bytes);
#endif
    free_.push_back(stack);
}

void fiber_stack_pool::put_current(fiber_stack stack)
{
    if (last_current_.mapping) put(last_current_);
    last_current_ = stack;
}

void fiber_stack_pool::put_abandoned(fiber_stack stack)
{
#ifdef __SANITIZE_ADDRESS__
    __lsan_register_root_region(stack.bottom, stack.bytes);
#else
    put(stack);
#endif
}

fiber::fiber()
{
#ifdef __SANITIZE_THREAD__
    thread_sanitizer_fiber_ = __tsan_get_current_fiber();
#endif
}

fiber::fiber(fiber_stack stack, void (*entry)(void*), void* argument) : entry_(entry), argument_(argument)
{
    if (stack.mapping) restart(stack);
}

void fiber::restart(fiber_stack stack)
{
    stack_ = stack;
    exceptions_ = {};
    char* top = static_cast<char*>(stack.bottom) + stack.bytes;
    context_ = boost::context::detail::make_fcontext(top, stack.bytes, begin);
#ifdef __SANITIZE_ADDRESS__
    fake_stack_ = nullptr;
#endif
#ifdef __SANITIZE_THREAD__
    if (thread_sanitizer_fiber_) __tsan_destroy_fiber(thread_sanitizer_fiber_);
    thread_sanitizer_fiber_ = __tsan_create_fiber(0);
#endif
}

fiber::~fiber()
{
#ifdef __SANITIZE_THREAD__
    if (entry_ && thread_sanitizer_fiber_) __tsan_destroy_fiber(thread_sanitizer_fiber_);
#endif
}

void fiber::switch_between(fiber& current, fiber& next, [[maybe_unused]] bool has_ended)
{
    next.previous_ = &current;
    auto& exceptions = reinterpret_cast<exception_state&>(*abi::__cxa_get_globals());
    current.exceptions_ = exceptions;
    exceptions = next.exceptions_;
#ifdef __SANITIZE_ADDRESS__
    __sanitizer_start_switch_fiber(has_ended ? nullptr : &current.fake_stack_, next.stack_.bottom, next.stack_.bytes);
#endif
#ifdef __SANITIZE_THREAD__
    __tsan_switch_to_fiber(next.thread_sanitizer_fiber_, 0);
#endif
    const auto transfer = boost::context::detail::jump_fcontext(next.context_, &next);
    current.arrive(transfer.fctx);
}

// Completes a switch to this fiber. After every switch to it, the fiber calls arrive() first.
void fiber::arrive(void* previous_context)
{
    previous_->context_ = previous_context;
#ifdef __SANITIZE_ADDRESS__
    __sanitizer_finish_switch_fiber(fake_stack_, &previous_bottom_, &previous_bytes_);
    // If the previous fiber is the thread on its own stack, AddressSanitizer reports the bounds of that stack only
    // here.
    if (!previous_->entry_) {
        previous_->stack_.bottom = const_cast<void*>(previous_bottom_);
        previous_->stack_.bytes = previous_bytes_;
    }
#endif
}

// Boost.Context calls this on the new stack at the first switch to a fiber.
void fiber::begin(boost::context::detail::transfer_t transfer)
{
    auto& self = *static_cast<fiber*>(transfer.data);
    self.arrive(transfer.fctx);
    self.entry_(self.argument_);
    panic("the entry of a fiber has returned");
}

} // namespace exec
