#include <thread>

#include "host/exec/current-task.h"
#include "host/exec/executor.h"
#include "host/exec/fiber-task.h"
#include "host/exec/ring-queue.h"
#include "host/exec/schedule.h"
#include "host/exec/shortage.h"

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
        explores_switches_ = options_.order != nullptr;
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

    task& start_steps(task_home* home, std::string name, std::function<step_pause()> step) override
    {
        check_thread("start_steps");
        auto* task = new fiber_task(*this, home, std::move(name), nullptr, {}, run_body);
        task->step = std::move(step);
        task->has_stack = false;
        return add(*task);
    }

    void join(task& task) override
    {
        check_thread("join");
        auto& target = static_cast<fiber_task&>(task);
        fiber_task* self = running();
        if (!self) {
            drive_until_ended(target);
        } else {
            might_sleep("join");
            while (target.state != task_state::ended) {
                target.joining_task = self;
                park(never, "join", target.name.c_str());
            }
        }
        free_task(target);
    }

    void park(uint64_t deadline, const char* reason, const char* object) override
    {
        might_sleep(reason);
        fiber_task& self = *running();
        if (!self.has_wake_up && deadline <= now_) {
            yield(self); // lets other tasks run even during a loop of such sleeps
        } else if (!self.has_wake_up) {
            if (deadline != never) arm(self, deadline);
            stop(self, task_state::parked, reason, object);
            ready_spinners();
            switch_away(self);
        }
        self.has_wake_up = false;
    }

    void wake(task& task) override
    {
        check_thread("wake");
        auto& sleeper = static_cast<fiber_task&>(task);
        sleeper.has_wake_up = true;
        if (sleeper.state == task_state::parked) make_ready(sleeper);
    }

    void enter(task_home* home, const std::string& name, const std::function<void()>& body) override
    {
        check_thread("enter");
        if (fiber_task* self = running()) {
            const inside_machine inside(*self, home);
            body();
            return;
        }
        fiber_task& visitor = start_fiber(home, name, body);
        visitor.may_throw = true;
        try {
            drive_until_ended(visitor);
        } catch (const stalled&) {
            disarm(visitor);
            visitor.state = task_state::abandoned; // its body uses variables of the caller, and the caller leaves now
            throw;
        }
        const std::exception_ptr exception = visitor.exception;
        free_task(visitor);
        if (exception) std::rethrow_exception(exception);
    }

    void relax() override
    {
        check_thread("relax");
        if (fiber_task* self = running()) {
            stop(*self, task_state::spinning, "", "");
            spinning_tasks_.push(self);
            switch_away(*self);
        } else if (!run_ready()) {
            throw stalled("deadlock: a caller from outside spins, and no task can run\n" + report());
        }
    }

    void run_until(uint64_t tick) override
    {
        if (running()) panic("run_until is called by a task of the simulation");
        check_thread("run_until");
        ready_spinners();
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
        std::vector<task*> tasks;
        for (fiber_task* each : tasks_)
            if (each->state != task_state::ended && each->state != task_state::abandoned) tasks.push_back(each);
        return tasks;
    }

  private:
    void explore_switch() override
    {
        fiber_task* self = running();
        if (!self) return;
        ready_spinners();
        if (ready_count() == 0) return;
        const size_t index = options_.order->choose(choice(*this, self), choice_point::switch_point);
        if (index == 0) return;
        fiber_task* next = take_ready(index - 1);
        preempted_tasks_.push(self);
        switch_to(*self, next);
    }

    // The tasks among which a schedule chooses. If `running` is not null, this task comes first.
    class choice final : public candidates
    {
      public:
        choice(const simulated_executor& executor, const fiber_task* running) : executor_(executor), running_(running)
        {
        }
        size_t count() const override { return executor_.ready_count() + (running_ ? 1 : 0); }
        uint64_t task_number(size_t index) const override
        {
            if (running_ && index-- == 0) return running_->number;
            const size_t first_preempted = executor_.ready_tasks_.size();
            return index < first_preempted ? executor_.ready_tasks_.at(index).number
                                           : executor_.preempted_tasks_.at(index - first_preempted).number;
        }

      private:
        const simulated_executor& executor_;
        const fiber_task* running_;
    };

    fiber_task* running() const { return static_cast<fiber_task*>(current_task()); }

    void check_thread(const char* call) const
    {
        if (std::this_thread::get_id() != thread_) panic("%s: a simulation is for one thread", call);
    }

    fiber_task& start_fiber(task_home* home, std::string name, std::function<void()> body)
    {
        return add(*new fiber_task(*this, home, std::move(name), std::move(body), stacks_.take(), run_body));
    }

    fiber_task& add(fiber_task& task)
    {
        task.number = ++started_tasks_;
        task.position = tasks_.insert(tasks_.end(), &task);
        ready_tasks_.push(&task);
        return task;
    }

    static void run_body(void* argument)
    {
        auto& self = *static_cast<fiber_task*>(argument);
        self.has_begun = true;
        try {
            if (self.step)
                static_cast<simulated_executor&>(self.exec).take_steps(self);
            else
                self.body();
        } catch (const std::exception& exception) {
            if (!self.may_throw) panic("an exception escaped: %s", exception.what());
            self.exception = std::current_exception();
        } catch (...) {
            if (!self.may_throw) panic("an exception escaped");
            self.exception = std::current_exception();
        }
        static_cast<simulated_executor&>(self.exec).end(self);
    }

    // Runs the steps of the calling task. Returns after the last one. If the task must wait between two steps and
    // is_restart_cheap is true, its fiber gives its stack back and never returns from switch_away(). prepare() later
    // restarts the fiber on a stack of the pool. Otherwise the task waits in park().
    void take_steps(fiber_task& self)
    {
        for (;;) {
            const step_pause pause = self.step();
            if (pause.is_last) return;
            if (!is_restart_cheap || self.has_wake_up || pause.deadline <= now_) {
                park(pause.deadline, pause.reason, pause.object);
                continue;
            }
            might_sleep(pause.reason);
            if (pause.deadline != never) arm(self, pause.deadline);
            stop(self, task_state::parked, pause.reason, pause.object);
            ready_spinners();
            self.has_stack = false;
            stacks_.put_current(self.own_fiber.stack());
            switch_away(self);
        }
    }

    // Call this before a switch to `next`. Restarts its fiber on a stack of the pool if `next` has no stack.
    void prepare(fiber_task& next)
    {
        if (next.has_stack) return;
        if (next.has_begun) next.has_wake_up = false; // the wake-up has ended the pause between two steps
        next.own_fiber.restart(stack_for_step());
        next.has_stack = true;
    }

    // Takes a stack from the pool. No caller could handle a shortage here. If the first attempt fails, releases the
    // memory reserve and tries again. A second failure is a hard error.
    fiber_stack stack_for_step()
    {
        try {
            return stacks_.take();
        } catch (const shortage&) {
            reserve::release();
        }
        try {
            return stacks_.take();
        } catch (const shortage& error) {
            panic("%s", error.what());
        }
    }

    void end(fiber_task& self)
    {
        self.state = task_state::ended;
        if (self.joining_task) wake(*self.joining_task);
        ready_spinners();
        switch_away(self);
    }

    void free_task(fiber_task& task)
    {
        disarm(task);
        tasks_.erase(task.position);
        if (!task.has_stack) {
            // nothing to give back
        } else if (task.state == task_state::ended || !task.has_begun)
            stacks_.put(task.own_fiber.stack());
        else
            stacks_.put_abandoned(task.own_fiber.stack());
        delete &task;
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

    void stop(fiber_task& self, task_state state, const char* reason, const char* object)
    {
        self.state = state;
        self.reason = reason;
        self.object = object;
        self.stopped_at_tick = now_;
    }

    void make_ready(fiber_task& sleeper)
    {
        disarm(sleeper);
        sleeper.state = task_state::ready;
        ready_tasks_.push(&sleeper);
    }

    // Makes the spinning tasks ready, because the condition that they wait for may have changed.
    void ready_spinners()
    {
        while (!spinning_tasks_.empty()) {
            fiber_task& spinner = *spinning_tasks_.take_first();
            if (spinner.state == task_state::spinning) make_ready(spinner);
        }
    }

    // Lets other ready tasks run before the calling task continues.
    void yield(fiber_task& self)
    {
        ready_spinners();
        if (ready_count() == 0) return;
        fiber_task* next = choose_ready();
        ready_tasks_.push(&self);
        switch_to(self, next);
    }

    void switch_to(fiber_task& self, fiber_task* next)
    {
        prepare(*next);
        set_current_task(next);
        fiber::switch_between(self.own_fiber, next->own_fiber);
    }

    // Switches from the calling task, which is not ready, to a ready task. Switches to the thread from outside instead
    // if no task is ready, or if the task for which that thread waits (target_) has ended.
    void switch_away(fiber_task& self)
    {
        const bool returns_outside = ready_count() == 0 || (target_ && target_->state == task_state::ended);
        fiber_task* next = returns_outside ? nullptr : choose_ready();
        if (next == &self) return;
        const bool is_gone = self.state == task_state::ended || !self.has_stack;
        if (next) prepare(*next);
        set_current_task(next);
        fiber::switch_between(self.own_fiber, next ? next->own_fiber : outside_, is_gone);
    }

    size_t ready_count() const { return ready_tasks_.size() + preempted_tasks_.size(); }

    fiber_task* take_ready(size_t index)
    {
        const size_t first_preempted = ready_tasks_.size();
        return index < first_preempted ? ready_tasks_.take(index) : preempted_tasks_.take(index - first_preempted);
    }

    fiber_task* choose_ready()
    {
        const bool has_choice = options_.order && ready_count() > 1;
        return take_ready(has_choice ? options_.order->choose(choice(*this, nullptr), choice_point::stop) : 0);
    }

    // Called by the thread from outside. Runs ready tasks until none is left, or until the task target_ has ended.
    // Returns false if no task was ready.
    bool run_ready()
    {
        if (ready_count() == 0) return false;
        fiber_task* next = choose_ready();
        prepare(*next);
        set_current_task(next);
        fiber::switch_between(outside_, next->own_fiber);
        return true;
    }

    // Called by the thread from outside. Advances the clock to the next deadline and makes the tasks with that deadline
    // ready. Returns false if there is no deadline up to the tick `limit`.
    bool advance_to_deadline(uint64_t limit)
    {
        if (deadlines_.empty() || deadlines_.begin()->first > limit) return false;
        now_ = deadlines_.begin()->first;
        while (!deadlines_.empty() && deadlines_.begin()->first <= now_) make_ready(*deadlines_.begin()->second);
        ready_spinners();
        return true;
    }

    // Called by the thread from outside. Runs the simulation until the task has ended. Throws `stalled` if it cannot
    // end, or if its end takes longer than patience_ticks.
    void drive_until_ended(const fiber_task& target)
    {
        const uint64_t limit = options_.patience_ticks < never - now_ ? now_ + options_.patience_ticks : never;
        ready_spinners();
        while (target.state != task_state::ended) {
            target_ = &target;
            const bool has_advanced = run_ready() || advance_to_deadline(limit);
            target_ = nullptr;
            if (has_advanced) continue;
            throw stalled((deadlines_.empty() ? "deadlock: " : "no end in sight: ") + target.name +
                          " cannot go on at tick " + std::to_string(now_) + "\n" + report());
        }
    }

    simulation_options options_;
    std::unique_ptr<schedule> seeded_order_;
    const std::thread::id thread_ = std::this_thread::get_id();
    uint64_t now_;
    fiber outside_; // the thread from outside, on its own stack; it drives the simulation
    fiber_stack_pool stacks_;
    uint64_t started_tasks_ = 0;
    std::list<fiber_task*> tasks_;
    ring_queue<fiber_task> ready_tasks_;
    ring_queue<fiber_task> preempted_tasks_; // ready, too: preempted at a switch point; candidates after ready_tasks_
    ring_queue<fiber_task> spinning_tasks_;  // in relax(), until the next call of ready_spinners()
    deadline_map deadlines_;
    const fiber_task* target_ = nullptr; // the task for whose end the thread from outside waits, or null
};

} // namespace

std::unique_ptr<simulation> make_simulation(const simulation_options& options)
{
    return std::make_unique<simulated_executor>(options);
}

} // namespace exec
