#include "host/exec/fiber.h"

#include <cstdint>
#include <cstdlib>
#include <cxxabi.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#include "host/exec/sanitizers.h"
#include "host/exec/shortage.h"
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif
#ifdef __SANITIZE_THREAD__
#include <sanitizer/tsan_interface.h>
#endif

// Saves the registers that a call preserves on the current stack, stores the stack pointer in *from, and goes on
// where `to` left off. swapcontext would make a system call each time.
extern "C" void kernel_switch_stack(void** from, void* to);
asm(R"(
.text
.type kernel_switch_stack, @function
kernel_switch_stack:
    pushq %rbp
    pushq %rbx
    pushq %r12
    pushq %r13
    pushq %r14
    pushq %r15
    movq %rsp, (%rdi)
    movq %rsi, %rsp
    popq %r15
    popq %r14
    popq %r13
    popq %r12
    popq %rbx
    popq %rbp
    ret
.size kernel_switch_stack, .-kernel_switch_stack
)");

// Where a new fiber begins: its argument waits in %r12, the function to call in %rbx.
extern "C" void kernel_fiber_entry();
asm(R"(
.text
.type kernel_fiber_entry, @function
kernel_fiber_entry:
    xorl %ebp, %ebp
    movq %r12, %rdi
    callq *%rbx
    ud2
.size kernel_fiber_entry, .-kernel_fiber_entry
)");

namespace exec
{

namespace
{

// Only touched pages take memory, so that size is cheap. A task that loads or unloads a module needs the most: the
// dynamic linker keeps arrays of all loaded images on the stack, some 10 bytes for each.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t stack_bytes = size_t{1024} * 1024; // instrumented frames are larger
#else
constexpr size_t stack_bytes = size_t{512} * 1024;
#endif

constexpr const char* no_memory = "no memory is left for the stack of a task: free some, or run fewer hosts";

} // namespace

fiber_stack_pool::~fiber_stack_pool()
{
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
    if (mprotect(stack.mapping, page, PROT_NONE) != 0) {
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
    // Frames that were left by switching away have not cleared what they marked.
    __asan_unpoison_memory_region(stack.bottom, stack.bytes);
#endif
    free_.push_back(stack);
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

fiber::fiber(fiber_stack stack, void (*entry)(void*), void* argument)
    : stack_(stack), entry_(entry), argument_(argument)
{
    // What kernel_switch_stack pops, from the lowest address: r15, r14, r13, r12, rbx, rbp, and where it returns to.
    auto* top = reinterpret_cast<uint64_t*>(static_cast<char*>(stack.bottom) + stack.bytes);
    top -= 2; // keeps the stack aligned as a call expects it
    *--top = reinterpret_cast<uint64_t>(&kernel_fiber_entry);
    *--top = 0;                                        // rbp
    *--top = reinterpret_cast<uint64_t>(&first_steps); // rbx
    *--top = reinterpret_cast<uint64_t>(this);         // r12
    for (int i = 0; i < 3; ++i) *--top = 0;            // r13, r14, r15
    stack_pointer_ = top;
#ifdef __SANITIZE_THREAD__
    thread_sanitizer_fiber_ = __tsan_create_fiber(0);
#endif
}

fiber::~fiber()
{
#ifdef __SANITIZE_THREAD__
    if (entry_) __tsan_destroy_fiber(thread_sanitizer_fiber_);
#endif
}

void fiber::switch_between(fiber& from, fiber& to, [[maybe_unused]] bool from_ended)
{
    to.came_from_ = &from;
    auto& exceptions = reinterpret_cast<exception_state&>(*abi::__cxa_get_globals());
    from.exceptions_ = std::exchange(exceptions, to.exceptions_);
#ifdef __SANITIZE_ADDRESS__
    __sanitizer_start_switch_fiber(from_ended ? nullptr : &from.fake_stack_, to.stack_.bottom, to.stack_.bytes);
#endif
#ifdef __SANITIZE_THREAD__
    __tsan_switch_to_fiber(to.thread_sanitizer_fiber_, 0);
#endif
    kernel_switch_stack(&from.stack_pointer_, to.stack_pointer_);
    from.arrive();
}

// The first thing that runs on a stack after a switch to it.
void fiber::arrive()
{
#ifdef __SANITIZE_ADDRESS__
    __sanitizer_finish_switch_fiber(fake_stack_, &came_from_bottom_, &came_from_bytes_);
    // A thread's own stack is learned from the first fiber that leaves it.
    if (!came_from_->entry_) {
        came_from_->stack_.bottom = const_cast<void*>(came_from_bottom_);
        came_from_->stack_.bytes = came_from_bytes_;
    }
#endif
}

void fiber::first_steps(fiber* self)
{
    self->arrive();
    self->entry_(self->argument_);
    std::abort(); // an entry leaves for good by switching away
}

} // namespace exec
