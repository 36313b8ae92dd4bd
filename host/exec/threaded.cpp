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

// The steady clock is CLOCK_MONOTONIC, which is what futexes go by.
timespec as_timespec(clock::time_point when)
{
    const auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count();
    return {.tv_sec = since / 1'000'000'000, .tv_nsec = since % 1'000'000'000};
}

constexpr uint64_t centuries_in_ticks = 1ull << 42; // a later deadline does not come, and would overflow the clock

// How a task stands to its wake-ups.
enum wake_state : uint32_t { running, sleeping, woken };

struct thread_task final : task {
    using task::task;

    std::atomic<uint32_t> state{running};
    std::thread thread; // not of a thread from outside
};

// Until the word is no longer `sleeping`, or the deadline is past. May return early.
void sleep_on(std::atomic<uint32_t>& word, const timespec* deadline)
{
    syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, sleeping, deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
}

class threaded_executor final : public executor
{
  public:
    uint64_t now() const override
    {
        return static_cast<uint64_t>(std::chrono::duration_cast<tick_duration>(clock::now() - started_).count());
    }

    task& start(task_home* home, std::string name, std::function<void()> body) override
    {
        auto made = std::make_unique<thread_task>(*this, home, std::move(name));
        made->thread = new_thread([self = made.get(), work = std::move(body)] {
            set_current_task(self);
            try {
                work();
            } catch (const std::exception& escaped) {
                panic("an exception escaped: %s", escaped.what());
            } catch (...) {
                panic("an exception escaped");
            }
        });
        return *made.release();
    }

    void join(task& awaited) override
    {
        if (current_task()) might_sleep("join");
        auto& ending = static_cast<thread_task&>(awaited);
        ending.thread.join();
        delete &ending;
    }

    void park(uint64_t deadline, const char* reason, const char*) override
    {
        might_sleep(reason);
        std::atomic<uint32_t>& state = static_cast<thread_task&>(*current_task()).state;
        uint32_t expected = running;
        if (state.compare_exchange_strong(expected, sleeping)) {
            const timespec until = as_timespec(started_ + tick_duration(std::min(deadline, centuries_in_ticks)));
            while (state == sleeping && now() < deadline) sleep_on(state, &until);
        }
        state.exchange(running); // sees what came before a wake-up that raced with the deadline
    }

    void wake(task& sleeper) override
    {
        std::atomic<uint32_t>& state = static_cast<thread_task&>(sleeper).state;
        // Once it is woken the sleeper may be gone: from there on its state is an address and no more.
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

    void switch_point() override {}
    void relax() override { std::this_thread::yield(); }

  private:
    const clock::time_point started_ = clock::now();
};

} // namespace

std::unique_ptr<executor> make_threaded_executor()
{
    return std::make_unique<threaded_executor>();
}

} // namespace exec
