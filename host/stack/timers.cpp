#include "host/stack/timers.h"

#include <cassert>
#include <utility>

#include "host/kernel/module-image.h"

using exec::never;

namespace stack
{

timers::timers(kernel::machine& home) : home_(home), atomic_(home, "timer"), sleeping_(home, "sleeping timers")
{
    init_waitqueue_head_named(&handler_ended_, "the end of a timer's handler");
    for (lane* each : {&atomic_, &sleeping_}) each->task.start([this, each] { return run(*each); }, "timers");
}

timers::~timers()
{
    atomic_.task.stop(); // first, because this task rings the other one
    sleeping_.task.stop();
    if (const size_t count = armed(); count > 0) {
        const lane& holder = atomic_.queue.size() > 0 ? atomic_ : sleeping_;
        const armed_timer& first = holder.queue.first();
        exec::panic("machine %s is destroyed with %zu armed timers; one calls %p at tick %llu", home_.name().c_str(),
                    count, reinterpret_cast<const void*>(first.function),
                    static_cast<unsigned long long>(first.expires_tick));
    }
}

void timers::arm(const timing_t& timer)
{
    if (!timer.function) exec::panic("add_timing: the timer has no function");
    const std::lock_guard lock(mutex_);
    for (lane* each : {&atomic_, &sleeping_}) {
        if (each->running_timer == &timer && each->is_arming_void) return;
        each->queue.remove(&timer);
    }
    lane& home_lane = timer.atomic ? atomic_ : sleeping_;
    home_lane.queue.add({timer.expires, ++arm_count_, &timer, timer.function, timer.data});
    if (home_lane.queue.first().record == &timer) home_lane.task.ring();
}

void timers::disarm_and_wait(const timing_t& timer)
{
    wait_queue_t sleeper;
    prepare_to_wait(&handler_ended_, &sleeper);
    while (still_runs(timer)) schedule_timeout_uninterruptible(never);
    finish_wait(&handler_ended_, &sleeper);
}

// Disarms the timer. Returns true if its handler is running. If so, arm() ignores the timer until the handler has
// returned.
bool timers::still_runs(const timing_t& timer)
{
    const std::lock_guard lock(mutex_);
    bool runs = false;
    for (lane* each : {&atomic_, &sleeping_}) {
        each->queue.remove(&timer);
        if (each->running_timer != &timer) continue;
        if (each->task.is_current()) exec::panic("del_timing_sync: a timer's handler deletes its own timer");
        each->is_arming_void = true;
        runs = true;
    }
    return runs;
}

size_t timers::armed() const
{
    const std::lock_guard lock(mutex_);
    return atomic_.queue.size() + sleeping_.queue.size();
}

std::vector<std::string> timers::left_by(const kernel::module_code& module) const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> leftovers;
    for (const lane* each : {&atomic_, &sleeping_}) {
        for (const armed_timer& timer : each->queue.all())
            if (module.holds(timer.function))
                leftovers.push_back("a timer that calls " + module.place(timer.function) + " at tick " +
                                    std::to_string(timer.expires_tick));
        if (each->running_timer && module.holds(each->running_handler))
            leftovers.push_back("a timer whose handler " + module.place(each->running_handler) + " runs");
    }
    return leftovers;
}

// One round of a lane's task. Returns std::nullopt if the task has run a handler or done idle work. Otherwise returns
// the tick until which the task may sleep.
std::optional<uint64_t> timers::run(lane& self)
{
    if (run_next(self) || run_idle_work(self)) return std::nullopt;
    return next_deadline(self);
}

void timers::set_idle_work(std::function<bool()> work)
{
    assert(!has_idle_work_);
    idle_work_ = std::move(work);
    has_idle_work_ = true;
}

bool timers::run_idle_work(const lane& self) const
{
    return &self == &sleeping_ && has_idle_work_ && idle_work_();
}

bool timers::run_next(lane& self)
{
    armed_timer next;
    if (!take_next(self, next)) return false;
    if (&self == &atomic_) {
        const exec::atomic_section no_sleep("the timer context");
        next.function(next.data);
    } else {
        next.function(next.data);
    }
    {
        const std::lock_guard lock(mutex_);
        self.running_timer = nullptr;
        self.is_arming_void = false;
    }
    wake_up_interruptible(&handler_ended_);
    return true;
}

bool timers::take_next(lane& self, armed_timer& next)
{
    const uint64_t now = home_.exec().now();
    const std::lock_guard lock(mutex_);
    if (!self.queue.is_due(now)) return false;
    if (&self == &sleeping_ && atomic_.queue.is_due(now)) return false; // the atomic handlers must run first
    next = self.queue.first();
    self.queue.remove(next.record);
    assert(!self.running_timer);
    self.running_timer = next.record;
    self.running_handler = next.function;
    return true;
}

// Returns the tick until which the task of an idle lane may sleep. If an atomic timer is due, the lane sleeping_ must
// wait: its task sleeps without a deadline. After the last atomic timer that is due, the lane atomic_ calls this
// function too, and wakes the task of sleeping_. This works even if timers were deleted or armed in between, and if the
// two lanes have read different ticks.
uint64_t timers::next_deadline(lane& self)
{
    const uint64_t now = home_.exec().now();
    const std::lock_guard lock(mutex_);
    if (&self == &sleeping_ && atomic_.queue.is_due(now)) {
        sleeping_waits_for_atomic_ = true;
        return never;
    }
    if (&self == &atomic_ && sleeping_waits_for_atomic_ && !atomic_.queue.is_due(now)) {
        sleeping_waits_for_atomic_ = false;
        sleeping_.task.ring();
    }
    return self.queue.size() > 0 ? self.queue.first().expires_tick : never;
}

} // namespace stack
