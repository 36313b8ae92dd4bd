// Fibers: one thread runs on several stacks and switches between them. Boost.Context saves and restores the registers
// at a switch. Boost.Context has code for many kinds of processors, and makes no system call.
#pragma once

#include <cstddef>
#include <vector>

#include "host/exec/sanitizers.h"

namespace boost::context::detail
{
struct transfer_t;
}

namespace exec
{

// A mapped stack. The page below it is usually a guard page (see install_guard() in fiber.cpp). Pages that were never
// touched use no memory.
struct fiber_stack {
    void* mapping = nullptr; // begins with the page below the stack
    size_t mapped_bytes = 0;
    void* bottom = nullptr; // the lowest address that may be used
    size_t bytes = 0;       // from `bottom` upwards
};

// Maps stacks and keeps free ones for the next fibers. Only one thread may use a pool.
class fiber_stack_pool
{
  public:
    ~fiber_stack_pool();

    // Returns a stack. The caller owns it until the caller puts it back. Throws a shortage if no stack can be mapped.
    fiber_stack take();

    // Puts back a stack whose fiber has ended or never started.
    void put(fiber_stack stack);

    // Puts back the stack on which the calling fiber runs. The fiber runs on it until its next switch, and must never
    // continue on it after that switch.
    void put_current(fiber_stack stack);

    // Puts back a stack whose fiber stopped before its entry function ended. The objects on the stack are never
    // destroyed. Under AddressSanitizer, the pool does not reuse such a stack: the leak checker then finds the pointers
    // on it, and does not report the memory that those objects own.
    void put_abandoned(fiber_stack stack);

  private:
    size_t stack_count_ = 0; // number of stacks that the pool has mapped
    std::vector<fiber_stack> free_;
    // The stack of the last put_current(); its mapping is null if there is none. Its fiber may still run on it, so the
    // pool reuses it only after the next put_current().
    fiber_stack last_current_;
};

// If true, a task of executor::start_steps puts its stack back while it is parked between two steps, and its fiber is
// restarted for the next step. The thread sanitizer starts a fiber so slowly that the task keeps its stack and its
// fiber instead.
#ifdef __SANITIZE_THREAD__
constexpr bool is_restart_cheap = false;
#else
constexpr bool is_restart_cheap = true;
#endif

// One fiber, or the thread on its own stack. A fiber starts at the first switch to it. All fibers that switch to each
// other belong to one thread.
class fiber
{
  public:
    // The calling thread on its own stack.
    fiber();

    // A fiber that calls `entry(argument)`. `entry` must not return; it ends with a last switch to another fiber. The
    // caller owns the stack, and keeps it as long as the fiber can run. If `stack` is empty (its mapping is null), call
    // restart() before the first switch.
    fiber(fiber_stack stack, void (*entry)(void*), void* argument);
    ~fiber();
    fiber(const fiber&) = delete;
    fiber& operator=(const fiber&) = delete;

    // Makes the next switch to the fiber call `entry(argument)` on this stack. The fiber then never continues at the
    // place where it stopped before. The caller owns the previous stack and the new one.
    void restart(fiber_stack stack);

    // Leaves the calling fiber, which must be `current`, and continues with `next`. Returns when a fiber switches back.
    // If `has_ended` is true, never returns: the calling fiber has ended, or restart() gives it a stack later.
    static void switch_between(fiber& current, fiber& next, bool has_ended = false);

    fiber_stack stack() const { return stack_; }

  private:
    static void begin(boost::context::detail::transfer_t transfer);
    void arrive(void* previous_context);

    // The exceptions in flight. The C++ run-time library keeps this record (__cxa_eh_globals) for each thread;
    // switch_between() exchanges it, so that each fiber has its own.
    struct exception_state {
        void* caught = nullptr;
        unsigned int uncaught = 0;
    };

    void* context_ = nullptr; // the registers, saved by Boost.Context; valid while the fiber does not run
    fiber_stack stack_;
    exception_state exceptions_;
    void (*entry_)(void*) = nullptr;
    void* argument_ = nullptr;

    fiber* previous_ = nullptr; // the fiber that made the last switch to this one

    // Used only under sanitizers.
    [[maybe_unused]] void* fake_stack_ = nullptr;
    [[maybe_unused]] const void* previous_bottom_ = nullptr;
    [[maybe_unused]] size_t previous_bytes_ = 0;
    [[maybe_unused]] void* thread_sanitizer_fiber_ = nullptr;
};

} // namespace exec
