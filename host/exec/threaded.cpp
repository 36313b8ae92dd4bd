#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <exception>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "host/exec/current-task.h"
#include "host/exec/executor.h"
#include "host/exec/shortage.h"

namespace exec
{

namespace
{

using clock = std::chrono::steady_clock;
using tick_duration = std::chrono::milliseconds;

// Converts a time of the steady clock for futex(). Both use CLOCK_MONOTONIC.
timespec as_timespec(clock::time_point time)
{
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
    return {.tv_sec = ns / 1'000'000'000, .tv_nsec = ns % 1'000'000'000};
}

constexpr uint64_t largest_deadline = 1ull << 42; // 139 years; a much later deadline would overflow the clock

enum wake_state : uint32_t {
    running,
    sleeping,
    woken, // wake() was called, and the task has not seen it yet
};

struct thread_task final : task {
    using task::task;

    std::atomic<uint32_t> state{running};
    std::thread thread; // empty in a task of enter(), which the calling thread runs
};

// Sleeps until the state is no longer `sleeping`, or until the deadline. May return early.
void sleep_on(std::atomic<uint32_t>& state, const timespec* deadline)
{
    syscall(SYS_futex, &state, FUTEX_WAIT_BITSET_PRIVATE, sleeping, deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
}

class threaded_executor final : public executor
{
  public:
    uint64_t now() const override
    {
        return static_cast<uint64_t>(std::chrono::duration_cast<tick_duration>(clock::now() - start_time_).count());
    }

    task& start(task_home* home, std::string name, std::function<void()> body) override
    {
        auto task = std::make_unique<thread_task>(*this, home, std::move(name));
        task->thread = new_thread([self = task.get(), body = std::move(body)] {
            set_current_task(self);
            try {
                body();
            } catch (const std::exception& exception) {
                panic("an exception escaped: %s", exception.what());
            } catch (...) {
                panic("an exception escaped");
            }
        });
        return *task.release();
    }

    task& start_steps(task_home* home, std::string name, std::function<step_pause()> step) override
    {
        return start(home, std::move(name), [this, step = std::move(step)] {
            for (step_pause pause = step(); !pause.is_last; pause = step())
                park(pause.deadline, pause.reason, pause.object);
        });
    }

    void join(task& task) override
    {
        if (current_task()) might_sleep("join");
        auto& target = static_cast<thread_task&>(task);
        target.thread.join();
        delete &target;
    }

    void park(uint64_t deadline, const char* reason, const char*) override
    {
        might_sleep(reason);
        std::atomic<uint32_t>& state = static_cast<thread_task&>(*current_task()).state;
        uint32_t previous = running;
        if (state.compare_exchange_strong(previous, sleeping)) {
            const timespec end = as_timespec(start_time_ + tick_duration(std::min(deadline, largest_deadline)));
            while (state == sleeping && now() < deadline) sleep_on(state, &end);
        }
        // An exchange instead of a store, because wake() may have set `woken` at the deadline. The exchange reads that
        // value. Therefore this task sees everything that the waking task wrote before wake().
        state.exchange(running);
    }

    void wake(task& task) override
    {
        std::atomic<uint32_t>& state = static_cast<thread_task&>(task).state;
        // After the exchange, the task can end and another task can free it. The system call uses only the address of
        // `state`, not its value.
        if (state.exchange(woken) == sleeping) syscall(SYS_futex, &state, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }

    void enter(task_home* home, const std::string& name, const std::function<void()>& body) override
    {
        if (task* self = current_task()) {
            const inside_machine inside(*self, home);
            body();
            return;
        }
        thread_task visitor(*this, home, name);
        set_current_task(&visitor);
        try {
            body();
        } catch (...) {
            set_current_task(nullptr);
            throw;
        }
        set_current_task(nullptr);
    }

    void relax() override { std::this_thread::yield(); }

  private:
    const clock::time_point start_time_ = clock::now();
};

} // namespace

std::unique_ptr<executor> make_threaded_executor()
{
    return std::make_unique<threaded_executor>();
}

} // namespace exec
