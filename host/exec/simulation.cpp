#include <thread>

#include "host/exec/current-task.h"
#include "host/exec/executor.h"
#include "host/exec/fiber-task.h"
#include "host/exec/ready-queue.h"
#include "host/exec/schedule.h"

namespace exec
{

namespace
{

class simulated_executor final : public simulation
{
  public:
    explicit simulated_executor(const simulation_options& options) : options_(options), now_(options.start_tick)
    {
        if (!options_.order && options_.explore_switches) {
            seeded_order_ = std::make_unique<random_schedule>(options_.seed);
            options_.order = seeded_order_.get();
        }
    }

    ~simulated_executor() override
    {
        while (!tasks_.empty()) free_task(*tasks_.front());
    }

    uint64_t now() const override { return now_; }

    task& start(task_home* home, std::string name, std::function<void()> body) override
    {
        check_thread("start");
        return start_fiber(home, std::move(name), std::move(body));
    }

    void join(task& awaited) override
    {
        check_thread("join");
        auto& ending = static_cast<fiber_task&>(awaited);
        fiber_task* self = running();
        if (!self) {
            drive_until_ended(ending);
        } else {
            might_sleep("join");
            while (ending.state != task_state::ended) {
                ending.joiner = self;
                park(never, "join", ending.name.c_str());
            }
        }
        free_task(ending);
    }

    void park(uint64_t deadline, const char* reason, const char* object) override
    {
        might_sleep(reason);
        fiber_task& self = *running();
        if (!self.woken && deadline <= now_) {
            yield(self); // a loop around such sleeps must not keep others from running
        } else if (!self.woken) {
            if (deadline != never) arm(self, deadline);
            stop(self, task_state::parked, reason, object);
            others_may_go_on();
            switch_away(self);
        }
        self.woken = false;
    }

    void wake(task& sleeper) override
    {
        check_thread("wake");
        auto& woken = static_cast<fiber_task&>(sleeper);
        woken.woken = true;
        if (woken.state == task_state::parked) make_ready(woken);
    }

    void enter(task_home* home, const std::string& name, const std::function<void()>& body) override
    {
        check_thread("enter");
        if (fiber_task* self = running()) {
            const inside_machine inside(*self, home);
            body();
            return;
        }
        fiber_task& entered = start_fiber(home, name, body);
        entered.failure_is_awaited = true;
        try {
            drive_until_ended(entered);
        } catch (const stalled&) {
            disarm(entered);
            entered.state = task_state::abandoned; // its body refers to what the caller is about to leave
            throw;
        }
        const std::exception_ptr failure = entered.failure;
        free_task(entered);
        if (failure) std::rethrow_exception(failure);
    }

    void switch_point() override
    {
        if (!options_.order) return;
        fiber_task* self = running();
        if (!self) return;
        others_may_go_on();
        if (ready_count() == 0) return;
        if (const size_t chosen = options_.order->choose(ready_count() + 1, choice_point::switch_point)) {
            fiber_task* next = take_ready(chosen - 1);
            preempted_.push(self);
            go_on(*self, next);
        }
    }

    void relax() override
    {
        check_thread("relax");
        if (fiber_task* self = running()) {
            stop(*self, task_state::spinning, "", "");
            spinning_.push(self);
            switch_away(*self);
        } else if (!run_ready()) {
            throw stalled("deadlock: a caller from outside spins, and no task can run\n" + report());
        }
    }

    void run_until(uint64_t tick) override
    {
        if (running()) panic("run_until is for those outside of the simulation");
        check_thread("run_until");
        others_may_go_on();
        while (run_ready() || advance_to_deadline(tick)) {}
        if (now_ < tick) now_ = tick;
    }

    void settle() override { run_until(now_); }

    std::string report() const override
    {
        std::string text;
        for (const fiber_task* each : tasks_)
            if (each->state == task_state::parked || each->state == task_state::spinning) text += each->describe();
        return text;
    }

    std::vector<task*> tasks() const override
    {
        std::vector<task*> living;
        for (fiber_task* each : tasks_)
            if (each->state != task_state::ended && each->state != task_state::abandoned) living.push_back(each);
        return living;
    }

  private:
    fiber_task* running() const { return static_cast<fiber_task*>(current_task()); }

    void check_thread(const char* call) const
    {
        if (std::this_thread::get_id() != thread_) panic("%s: a simulation is for one thread", call);
    }

    fiber_task& start_fiber(task_home* home, std::string name, std::function<void()> body)
    {
        auto* made = new fiber_task(*this, home, std::move(name), std::move(body), stacks_.take(), run_body);
        made->position = tasks_.insert(tasks_.end(), made);
        ready_.push(made);
        return *made;
    }

    static void run_body(void* argument)
    {
        auto& self = *static_cast<fiber_task*>(argument);
        self.begun = true;
        try {
            self.body();
        } catch (const std::exception& escaped) {
            if (!self.failure_is_awaited) panic("an exception escaped: %s", escaped.what());
            self.failure = std::current_exception();
        } catch (...) {
            if (!self.failure_is_awaited) panic("an exception escaped");
            self.failure = std::current_exception();
        }
        static_cast<simulated_executor&>(self.exec).end(self);
    }

    void end(fiber_task& self)
    {
        self.state = task_state::ended;
        if (self.joiner) wake(*self.joiner);
        others_may_go_on();
        switch_away(self);
    }

    void free_task(fiber_task& freed)
    {
        disarm(freed);
        tasks_.erase(freed.position);
        if (freed.state == task_state::ended || !freed.begun)
            stacks_.put(freed.thread.stack());
        else
            stacks_.put_abandoned(freed.thread.stack());
        delete &freed;
    }

    void arm(fiber_task& sleeper, uint64_t deadline)
    {
        sleeper.has_deadline = true;
        if (sleeper.node.empty()) {
            sleeper.deadline = deadlines_.emplace(deadline, &sleeper);
            return;
        }
        sleeper.node.key() = deadline;
        sleeper.deadline = deadlines_.insert(std::move(sleeper.node));
    }

    void disarm(fiber_task& sleeper)
    {
        if (!sleeper.has_deadline) return;
        sleeper.has_deadline = false;
        sleeper.node = deadlines_.extract(sleeper.deadline);
    }

    void stop(fiber_task& self, task_state why, const char* reason, const char* object)
    {
        self.state = why;
        self.reason = reason;
        self.object = object;
        self.stopped_at_tick = now_;
    }

    void make_ready(fiber_task& sleeper)
    {
        disarm(sleeper);
        sleeper.state = task_state::ready;
        ready_.push(&sleeper);
    }

    // Something has happened that those who spin may have been waiting for.
    void others_may_go_on()
    {
        while (!spinning_.empty())
            if (fiber_task* spins = spinning_.take_first(); spins->state == task_state::spinning) make_ready(*spins);
    }

    // Lets the other ready tasks run before the calling one goes on.
    void yield(fiber_task& self)
    {
        others_may_go_on();
        if (ready_count() == 0) return;
        fiber_task* next = choose_ready();
        ready_.push(&self);
        go_on(self, next);
    }

    void go_on(fiber_task& self, fiber_task* next)
    {
        set_current_task(next);
        fiber::switch_between(self.thread, next->thread);
    }

    // Goes on with a ready task, or with the thread from outside when there is none, or when what it awaits is here.
    void switch_away(fiber_task& self)
    {
        const bool to_outside = ready_count() == 0 || (awaited_ && awaited_->state == task_state::ended);
        fiber_task* next = to_outside ? nullptr : choose_ready();
        if (next == &self) return;
        set_current_task(next);
        fiber::switch_between(self.thread, next ? next->thread : outside_, self.state == task_state::ended);
    }

    size_t ready_count() const { return ready_.size() + preempted_.size(); }

    fiber_task* take_ready(size_t index)
    {
        return index < ready_.size() ? ready_.take(index) : preempted_.take(index - ready_.size());
    }

    fiber_task* choose_ready()
    {
        const bool is_open = options_.order && ready_count() > 1;
        return take_ready(is_open ? options_.order->choose(ready_count(), choice_point::stop) : 0);
    }

    // From outside: runs what is ready. False when nothing was.
    bool run_ready()
    {
        if (ready_count() == 0) return false;
        fiber_task* next = choose_ready();
        set_current_task(next);
        fiber::switch_between(outside_, next->thread);
        return true;
    }

    // From outside: moves the clock to the next deadline, unless it lies behind `limit`, and wakes who waits for it.
    bool advance_to_deadline(uint64_t limit)
    {
        if (deadlines_.empty() || deadlines_.begin()->first > limit) return false;
        now_ = deadlines_.begin()->first;
        while (!deadlines_.empty() && deadlines_.begin()->first <= now_) make_ready(*deadlines_.begin()->second);
        others_may_go_on();
        return true;
    }

    void drive_until_ended(const fiber_task& ending)
    {
        const uint64_t limit = options_.patience_ticks < never - now_ ? now_ + options_.patience_ticks : never;
        others_may_go_on();
        while (ending.state != task_state::ended) {
            awaited_ = &ending;
            const bool moved = run_ready() || advance_to_deadline(limit);
            awaited_ = nullptr;
            if (moved) continue;
            throw stalled((deadlines_.empty() ? "deadlock: " : "no end in sight: ") + ending.name +
                          " cannot go on at tick " + std::to_string(now_) + "\n" + report());
        }
    }

    simulation_options options_;
    std::unique_ptr<schedule> seeded_order_;
    const std::thread::id thread_ = std::this_thread::get_id();
    uint64_t now_;
    fiber outside_;
    fiber_stack_pool stacks_;
    std::list<fiber_task*> tasks_;
    ready_queue<fiber_task> ready_;
    ready_queue<fiber_task> preempted_; // ready too, but behind those
    ready_queue<fiber_task> spinning_;  // not ready before another task has run
    deadline_map deadlines_;
    const fiber_task* awaited_ = nullptr; // whose end the thread from outside is waiting for
};

} // namespace

std::unique_ptr<simulation> make_simulation(const simulation_options& options)
{
    return std::make_unique<simulated_executor>(options);
}

} // namespace exec
