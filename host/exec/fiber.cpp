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

// Only touched pages use memory, so a large stack is cheap. A task that loads or unloads a module needs the largest
// stack: the dynamic linker keeps arrays of all loaded images there, about 10 bytes for each image.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t stack_bytes = size_t{1024} * 1024; // instrumented frames are larger
#else
constexpr size_t stack_bytes = size_t{512} * 1024;
#endif

// A guard may split a mapping, and the number of mappings is limited. Beyond this number of stacks, only guards that
// split no mapping are installed. All stacks run the same code, so the guards of the first stacks find an overflow as
// well.
constexpr size_t split_stacks_limit = 4096;

// Makes the lowest page of a stack fault. The kernel keeps such a guard in its page tables since Linux 6.13. Before, a
// guard was a mapping of its own.
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
    madvise(stack.mapping, stack.mapped_bytes, MADV_NOHUGEPAGE); // a huge page would take memory for several stacks
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
    // The fiber ended without returning from its last frames, so their marks are still set.
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

// Runs first after each switch to this fiber.
void fiber::arrive(void* previous_context)
{
    previous_->context_ = previous_context;
#ifdef __SANITIZE_ADDRESS__
    __sanitizer_finish_switch_fiber(fake_stack_, &previous_bottom_, &previous_bytes_);
    // A thread's own stack bounds are known only when the thread leaves that stack.
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
