// Fibers: one thread runs on several stacks and switches between them. Boost.Context saves and restores the registers
// at a switch. It has the code for each kind of processor, and makes no system call.
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

// A mapped stack with a guard page below it. Pages that were never touched use no memory.
struct fiber_stack {
    void* mapping = nullptr; // begins with the guard page
    size_t mapped_bytes = 0;
    void* bottom = nullptr; // the lowest address that may be used
    size_t bytes = 0;       // from there
};

// Maps stacks and keeps free ones for the next fibers. For one thread.
class fiber_stack_pool
{
  public:
    ~fiber_stack_pool();

    // Returns a stack. The caller owns it until it is put back. Throws a shortage if no stack can be mapped.
    fiber_stack take();

    // Puts back a stack whose fiber has ended or never started.
    void put(fiber_stack stack);

    // Puts back the stack on which the caller runs. The caller must leave it with its next switch, for good.
    void put_current(fiber_stack stack);

    // Puts back a stack whose fiber stopped half-way. Its local objects are never destroyed. The leak checker does not
    // report the memory that they own.
    void put_abandoned(fiber_stack stack);

  private:
    size_t stack_count_ = 0; // those that were mapped
    std::vector<fiber_stack> free_;
    // The stack of the last put_current(). Its fiber may still run on it until the next put_current(). The mapping is
    // null if there is none.
    fiber_stack last_current_;
};

// If true, a task gives up its stack while it rests, and its fiber is restarted for the next step. If false, it keeps
// both: the thread sanitizer takes longer to start a fiber than most fibers run.
#ifdef __SANITIZE_THREAD__
constexpr bool is_restart_cheap = false;
#else
constexpr bool is_restart_cheap = true;
#endif

// One fiber, or the thread on its own stack. A fiber starts at the first switch to it. For one thread.
class fiber
{
  public:
    // The calling thread on its own stack.
    fiber();

    // A fiber that calls `entry(argument)`. `entry` must not return; it ends with a last switch to another fiber. The
    // caller owns the stack, which must outlive the fiber. Without a stack (no mapping), restart() must come before the
    // first switch.
    fiber(fiber_stack stack, void (*entry)(void*), void* argument);
    ~fiber();
    fiber(const fiber&) = delete;
    fiber& operator=(const fiber&) = delete;

    // The next switch to the fiber calls `entry(argument)` on this stack. Call it only if the fiber was made without a
    // stack, or if nothing has to continue at the place where it stopped. The caller owns both stacks.
    void restart(fiber_stack stack);

    // Leaves the calling fiber, which must be `current`, and continues with `next`. Returns when a fiber switches back.
    // With `has_ended`, the calling fiber is never resumed.
    static void switch_between(fiber& current, fiber& next, bool has_ended = false);

    fiber_stack stack() const { return stack_; }

  private:
    static void begin(boost::context::detail::transfer_t transfer);
    void arrive(void* previous_context);

    // The exceptions in flight, in the form in which the C++ run-time library keeps them for each thread.
    struct exception_state {
        void* caught = nullptr;
        unsigned int uncaught = 0;
    };

    void* context_ = nullptr; // belongs to Boost.Context; valid while the fiber does not run
    fiber_stack stack_;
    exception_state exceptions_;
    void (*entry_)(void*) = nullptr;
    void* argument_ = nullptr;

    fiber* previous_ = nullptr; // the fiber that switched here last

    // Used only under sanitizers.
    [[maybe_unused]] void* fake_stack_ = nullptr;
    [[maybe_unused]] const void* previous_bottom_ = nullptr;
    [[maybe_unused]] size_t previous_bytes_ = 0;
    [[maybe_unused]] void* thread_sanitizer_fiber_ = nullptr;
};

} // namespace exec
