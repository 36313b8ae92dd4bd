// The timing service. Tests it through the calls that modules make: init_timing(), add_timing(), del_timing_sync().
#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/stack/boot.h"
#include "host/stack/timers.h"
#include "tests/stack/fake-hca.h"

using testing::ElementsAre;

namespace
{

class timers_test : public testing::Test
{
  protected:
    struct test_timer {
        timing_t timer;
        std::string name;
        std::function<void(timing_t&)> action;
        std::vector<std::string>& lines;
    };

    // Arms a timer whose handler adds "name@tick" to `lines` and then calls `action`. The caller must be a task.
    timing_t& arm(const std::string& name, bool atomic, uint64_t tick, std::function<void(timing_t&)> action = {})
    {
        timers.push_back(std::unique_ptr<test_timer>(new test_timer{{}, name, std::move(action), lines}));
        timing_t& timer = timers.back()->timer;
        init_timing(&timer);
        timer.function = [](unsigned long self) {
            auto* due = reinterpret_cast<test_timer*>(self);
            due->lines.push_back(due->name + "@" + std::to_string(get_jiffies()));
            if (due->action) due->action(due->timer);
        };
        timer.data = reinterpret_cast<unsigned long>(timers.back().get());
        timer.atomic = atomic;
        move(timer, tick);
        return timer;
    }
    static void move(timing_t& timer, uint64_t tick)
    {
        timer.expires = tick;
        add_timing(&timer);
    }

    std::vector<std::string> lines;
    std::vector<std::unique_ptr<test_timer>> timers;
    one_machine machine{{.start_tick = 100}};
};

TEST_F(timers_test, run_at_their_tick_and_in_their_order_for_every_order_of_tasks)
{
    for (uint64_t seed = 1; seed <= 50; ++seed) {
        one_machine world({.seed = seed, .start_tick = 100, .explore_switches = true});
        lines.clear();
        world.run([&] {
            arm("late", true, 130);
            arm("sleeper b", false, 120);
            arm("sleeper a", false, 119);
            arm("atomic 1", true, 120);
            arm("atomic 2", true, 120);
            EXPECT_EQ(world.host.get<stack::timers>().armed(), 5u);
            spinlock_t lock;
            spin_lock_init(&lock);
            const unsigned long flags = spin_lock_irqsave(&lock);
            arm("under lock", true, 120);
            arm("past", false, 7);
            spin_unlock_irqrestore(&lock, flags);
        });
        world.sim->run_until(129);
        EXPECT_THAT(lines, ElementsAre("past@100", "sleeper a@119", "atomic 1@120", "atomic 2@120", "under lock@120",
                                       "sleeper b@120"));
        EXPECT_EQ(world.host.get<stack::timers>().armed(), 1u);
        world.sim->run_until(200);
        EXPECT_EQ(lines.back(), "late@130");
    }
}

// One task runs the atomic timers, a second task runs the sleeping timers. While an atomic timer is due, the second
// task waits without a deadline until the first task wakes it. Meanwhile an atomic handler moves a sleeping timer, or a
// sleeping timer is armed. If the wake-up is then lost, the sleeping timer never runs.
TEST_F(timers_test, a_sleeping_timer_is_not_lost_behind_an_atomic_one_that_is_due)
{
    for (uint64_t seed = 1; seed <= 50; ++seed) {
        one_machine world({.seed = seed, .start_tick = 100, .explore_switches = true});
        lines.clear();
        world.run([&] {
            timing_t& timer = arm("moved", false, 110);
            arm("atomic", true, 110, [&](timing_t&) { move(timer, 150); });
            arm("sleeper", false, 120);
            schedule_timeout_uninterruptible(30);
            arm("atomic", true, 130);
            arm("armed", false, 131);
        });
        world.sim->run_until(200);
        ASSERT_THAT(lines, ElementsAre("atomic@110", "sleeper@120", "atomic@130", "armed@131", "moved@150")) << seed;
    }
}

TEST_F(timers_test, a_sleeping_timer_is_not_lost_on_threads)
{
    const std::unique_ptr<exec::executor> exec = exec::make_threaded_executor();
    kernel::machine host{*exec, "node1"};
    std::atomic<int> handler_count = 0;
    host.enter("test", [&] {
        timing_t atomic_timer, sleeping_timer;
        init_timing(&atomic_timer);
        init_timing(&sleeping_timer);
        atomic_timer.function = [](unsigned long) {};
        atomic_timer.atomic = true;
        sleeping_timer.function = [](unsigned long count) { ++*reinterpret_cast<std::atomic<int>*>(count); };
        sleeping_timer.data = reinterpret_cast<unsigned long>(&handler_count);
        const auto test_deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        for (int round = 1; round <= 300 && handler_count == round - 1; ++round) {
            move(atomic_timer, get_jiffies());
            move(sleeping_timer, get_jiffies() + 1);
            while (handler_count < round && std::chrono::steady_clock::now() < test_deadline) exec->relax();
        }
        del_timing_sync(&sleeping_timer);
        del_timing_sync(&atomic_timer);
    });
    EXPECT_EQ(handler_count, 300);
}

TEST_F(timers_test, arming_again_moves_a_timer_and_a_handler_may_arm_its_own)
{
    machine.run([&] {
        for (const bool atomic : {true, false}) {
            timing_t& timer = arm("moved", atomic, 110);
            move(timer, 150);
            move(timer, 140);
            arm("periodic", atomic, 105, [](timing_t& self) {
                if (get_jiffies() < 300) move(self, get_jiffies() + 100);
            });
        }
    });
    machine.sim->run_until(1000);
    EXPECT_THAT(lines, ElementsAre("periodic@105", "periodic@105", "moved@140", "moved@140", "periodic@205",
                                   "periodic@205", "periodic@305", "periodic@305"));
}

TEST_F(timers_test, a_sleeping_handler_delays_only_other_sleeping_handlers)
{
    kernel::machine other{*machine.sim, "node2"};
    machine.run([&] {
        arm("slow", false, 110, [](timing_t&) { schedule_timeout_uninterruptible(50); });
        arm("waits", false, 120);
        arm("atomic", true, 120);
    });
    other.enter("test", [&] { arm("neighbour", false, 121); });
    machine.sim->run_until(200);
    EXPECT_THAT(lines, ElementsAre("slow@110", "atomic@120", "neighbour@121", "waits@160"));
}

TEST_F(timers_test, the_task_of_the_sleeping_timers_polls_for_answers_while_none_is_due)
{
    machine_with_fake world({.start_tick = 100});
    int answers = 0;
    world.hca.while_polled = [&] {
        if (answers > 0) arm("answer " + std::to_string(answers), false, get_jiffies());
        return answers-- > 0;
    };
    world.run([&] {
        stack::boot(world.host);
        arm("atomic", true, 105);
        arm("asks", false, 110, [&](timing_t&) { answers = 2; });
        schedule_timeout_uninterruptible(20);
    });
    EXPECT_THAT(lines, ElementsAre("atomic@105", "asks@110", "answer 2@110", "answer 1@110"));
}

TEST_F(timers_test, deletion_waits_for_the_handler_and_cancels_a_timer_that_it_has_armed_again)
{
    machine.run([&] {
        timing_t& slow = arm("slow", false, 110, [](timing_t& self) {
            const uint64_t start_tick = get_jiffies();
            if (start_tick == 110) schedule_timeout_uninterruptible(50);
            if (start_tick == 110) move(self, get_jiffies()); // due at once
            if (start_tick == 200) move(self, start_tick + 5);
        });
        schedule_timeout_uninterruptible(20);
        del_timing_sync(&slow);
        EXPECT_EQ(get_jiffies(), 160u);
        move(slow, 200); // a deleted timer may be armed again
        schedule_timeout_uninterruptible(50);
        move(slow, 300);
        del_timing_sync(&slow);
        EXPECT_EQ(get_jiffies(), 210u) << "no handler runs, so the deletion must not wait";
    });
    machine.sim->run_until(400);
    EXPECT_THAT(lines, ElementsAre("slow@110", "slow@200", "slow@205"));
}

TEST_F(timers_test, misuse_is_a_hard_error)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto run = [this](bool atomic, const std::function<void(timing_t&)>& handler) {
        one_machine world;
        world.run([&] { arm("it", atomic, 1, handler); });
        world.sim->run_until(10);
    };
    EXPECT_DEATH(run(false, [](timing_t& self) { del_timing_sync(&self); }), "deletes its own timer");
    const auto arm_without_function = [] {
        timing_t timer;
        init_timing(&timer);
        add_timing(&timer);
    };
    EXPECT_DEATH(machine.run(arm_without_function), "add_timing: the timer has no function");
    EXPECT_DEATH(run(true, [](timing_t& self) { del_timing_sync(&self); }),
                 "del_timing_sync may sleep, and is called in the timer context");
    EXPECT_DEATH(run(true, [](timing_t&) { schedule_timeout_uninterruptible(1); }),
                 "schedule_timeout_uninterruptible may sleep, and is called in the timer context");
    EXPECT_DEATH(run(true, [](timing_t& self) { move(self, 1000); }),
                 "machine node1 is destroyed with 1 armed timers; one calls 0x[0-9a-f]+ at tick 1000");
}

} // namespace
