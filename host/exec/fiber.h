// Fibers: stacks that one thread switches between.
#pragma once

#include <cstddef>
#include <vector>

namespace exec
{

// A mapped stack with a guard page below it. Untouched pages cost no memory.
struct fiber_stack {
    void* mapping = nullptr;
    size_t mapped_bytes = 0;
    void* bottom = nullptr;
    size_t bytes = 0;
};

// Hands out stacks and takes them back for the next fiber. For one thread.
class fiber_stack_pool
{
  public:
    ~fiber_stack_pool();

    // Throws a shortage when none can be mapped.
    fiber_stack take();

    // A stack whose fiber has come to its end, or never began.
    void put(fiber_stack stack);

    // A stack whose fiber stopped half-way: what lives on it is never destroyed. The leak checker goes on seeing what
    // it refers to.
    void put_abandoned(fiber_stack stack);

  private:
    std::vector<fiber_stack> free_;
};

// One fiber, or (default constructed) the thread's own stack. Not started until the first switch to it.
class fiber
{
  public:
    fiber(); // the calling thread's stack
    fiber(fiber_stack stack, void (*entry)(void*), void* argument);
    ~fiber();
    fiber(const fiber&) = delete;
    fiber& operator=(const fiber&) = delete;

    // Leaves the calling fiber, which must be `from`, and goes on with `to`. `from_ended` says that `from` will never
    // be resumed.
    static void switch_between(fiber& from, fiber& to, bool from_ended = false);

    fiber_stack stack() const { return stack_; }

  private:
    static void first_steps(fiber* self);
    void arrive();

    // The language run-time's account of exceptions in flight, which it keeps per thread.
    struct exception_state {
        void* caught = nullptr;
        unsigned int uncaught = 0;
    };

    void* stack_pointer_ = nullptr;
    fiber_stack stack_;
    exception_state exceptions_;
    void (*entry_)(void*) = nullptr;
    void* argument_ = nullptr;

    // What the sanitizers keep of a stack.
    [[maybe_unused]] void* fake_stack_ = nullptr;
    [[maybe_unused]] const void* came_from_bottom_ = nullptr;
    [[maybe_unused]] size_t came_from_bytes_ = 0;
    fiber* came_from_ = nullptr;
    [[maybe_unused]] void* thread_sanitizer_fiber_ = nullptr;
};

} // namespace exec
