#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

#include "host/kernel/current-task.h"
#include "host/kernel/executor.h"

namespace kernel
{

namespace
{

using clock = std::chrono::steady_clock;
using tick_duration = std::chrono::milliseconds;

constexpr uint64_t centuries_in_ticks = 1ull << 42; // a later deadline does not come, and would overflow the clock

struct thread_task final : task {
    using task::task;

    std::mutex mutex;
    std::condition_variable changed;
    bool woken = false; // guarded by mutex
    std::thread thread; // not of a thread from outside
};

class threaded_executor final : public executor
{
  public:
    uint64_t now() const override
    {
        return static_cast<uint64_t>(std::chrono::duration_cast<tick_duration>(clock::now() - started_).count());
    }

    task& start(machine* home, std::string name, std::function<void()> body) override
    {
        auto made = std::make_unique<thread_task>(*this, home, std::move(name));
        made->thread = std::thread([self = made.get(), work = std::move(body)] {
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
        auto& self = static_cast<thread_task&>(*current_task());
        std::unique_lock lock(self.mutex);
        const auto is_woken = [&self] { return self.woken; };
        if (deadline > centuries_in_ticks)
            self.changed.wait(lock, is_woken);
        else
            self.changed.wait_until(lock, started_ + tick_duration(deadline), is_woken);
        self.woken = false;
    }

    void wake(task& sleeper) override
    {
        auto& woken = static_cast<thread_task&>(sleeper);
        const std::lock_guard lock(woken.mutex);
        woken.woken = true;
        // Told under the lock: the sleeper cannot return, and end, before this is done with it.
        woken.changed.notify_one();
    }

    void enter(machine* home, const std::string& name, const std::function<void()>& body) override
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

} // namespace kernel
