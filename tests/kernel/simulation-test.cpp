// The simulation itself: order, time, stands, and what fibers must not mix up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <thread>

#include "host/exec/schedule.h"
#include "kernel/printk.h"
#include "tests/kernel/one-machine.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

// What a busy machine logs: everything that the seed may decide shows in it.
std::string busy_machine(const exec::simulation_options& options)
{
    one_machine at(options);
    semaphore sem;
    sema_init(&sem, 1);
    for (int name = 0; name < 5; ++name) {
        at.at(static_cast<uint64_t>(name / 2), "task", [&, name] {
            for (int i = 0; i < 4; ++i) {
                down(&sem);
                printk("%d", name);
                up(&sem);
                if (i == name) schedule_timeout_uninterruptible(1);
            }
        });
    }
    at.finish();
    return at.host.log.raw();
}

TEST(order, is_the_seeds_and_only_the_seeds)
{
    std::set<std::string> runs;
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        const exec::simulation_options options{.seed = seed, .explore_switches = true};
        const std::string run = busy_machine(options);
        EXPECT_EQ(run, busy_machine(options)) << "with seed " << seed;
        runs.insert(run);
    }
    EXPECT_GT(runs.size(), 10u);
    EXPECT_EQ(busy_machine({.seed = 1}), busy_machine({.seed = 2})) << "nobody asked for exploration";
}

// Two tasks that each read a number, are somewhere else, and write it back plus one: what they end up with.
std::set<int> outcomes_of_a_race(int deviations, uint64_t* orders)
{
    exec::systematic_schedule order(deviations);
    std::set<int> outcomes;
    do {
        one_machine at({.order = &order});
        semaphore elsewhere; // never waited for: only a place to switch
        sema_init(&elsewhere, 2);
        int number = 0;
        const auto add_one = [&] {
            const int read = number;
            down(&elsewhere);
            up(&elsewhere);
            number = read + 1;
        };
        at.at(0, "first", add_one);
        at.at(0, "second", add_one);
        order.explore(true);
        at.sim->settle();
        outcomes.insert(number);
        at.finish();
    } while (order.next());
    *orders = order.orders_tried();
    return outcomes;
}

TEST(order, systematic_tries_each_one_up_to_its_bound_and_finds_the_one_that_loses_an_update)
{
    uint64_t orders;
    EXPECT_THAT(outcomes_of_a_race(0, &orders), ElementsAre(2));
    EXPECT_EQ(orders, 1u);
    EXPECT_THAT(outcomes_of_a_race(1, &orders), ElementsAre(1, 2));
    EXPECT_EQ(orders, 4u); // the first in order, the second first, a switch at the down or at the up
}

// Each run begins so many tasks at one instant: what the order says of the run before may not fit.
void run_with_tasks(const std::vector<int>& tasks_of_each_run)
{
    exec::systematic_schedule order(1);
    for (const int tasks : tasks_of_each_run) {
        one_machine at({.order = &order});
        for (int i = 0; i < tasks; ++i) at.at(0, "task", [] {});
        order.explore(true);
        at.finish();
        order.next();
    }
}

TEST(order, systematic_refuses_a_scenario_that_is_not_the_same_in_each_run)
{
    run_with_tasks({3, 3});
    EXPECT_DEATH(run_with_tasks({2, 3}), "choice 0 was among 2 tasks and is now among 3");
    EXPECT_DEATH(run_with_tasks({3, 2}), "choice 0 was among 3 tasks and is now among 2");
    EXPECT_DEATH(run_with_tasks({3, 1}), "it made 2 choices, and now 0");
}

TEST(time, jumps_to_each_deadline_and_serves_those_of_one_tick_in_order)
{
    one_machine at({.start_tick = 1000});
    std::vector<std::string> seen;
    const auto note = [&](const char* what) { seen.push_back(what + std::to_string(at.sim->now())); };
    at.at(1020, "b", [&] { note("b"); });
    at.at(1010, "a", [&] {
        note("a");
        schedule_timeout_uninterruptible(10);
        note("a");
    });
    at.at(1020, "c", [&] { note("c"); });
    at.sim->run_until(1019);
    EXPECT_THAT(seen, ElementsAre("a1010"));
    EXPECT_EQ(at.sim->now(), 1019u);
    at.sim->run_for(1);
    EXPECT_THAT(seen, ElementsAre("a1010", "b1020", "c1020", "a1020"));
    at.sim->run_until(500'000'000); // nothing is due: costs nothing
    EXPECT_EQ(at.sim->now(), 500'000'000u);
}

TEST(wake_ups, are_never_lost_and_several_are_one)
{
    one_machine at;
    std::vector<uint64_t> woken_at;
    exec::task& sleeper = at.at(0, "sleeper", [&] {
        schedule_timeout_uninterruptible(5);
        at.sim->wake(*exec::current_task());
        at.sim->wake(*exec::current_task());
        for (int i = 0; i < 4; ++i) {
            at.sim->park(get_jiffies() + 100, "mail", "box");
            woken_at.push_back(get_jiffies());
        }
    });
    at.at(7, "postman", [&] {
        at.sim->wake(sleeper);
        at.sim->wake(sleeper);
    });
    at.at(9, "postman", [&] { at.sim->wake(sleeper); });
    at.finish();
    EXPECT_THAT(woken_at, ElementsAre(5u, 7u, 9u, 109u));
}

// The report of the stand that `body` leads to.
std::string stand_of(one_machine& at, const std::function<void()>& body)
{
    try {
        at.run(body);
    } catch (const exec::stalled& stand) {
        return stand.what();
    }
    return "it went on";
}

TEST(stands, are_reported_with_everyone_and_what_they_wait_for)
{
    one_machine at;
    semaphore mine;
    sema_init_named(&mine, 0, "&ats->ats_sem");
    wait_queue_head_t answers;
    init_waitqueue_head_named(&answers, "&ats->delete_resp_wq");
    exec::task& worker = at.at(0, "worker", [&] {
        wait_event_interruptible_timeout(
            &answers, [] { return false; }, ULONG_MAX);
    });
    const auto wait = [&] {
        schedule_timeout_uninterruptible(20);
        down(&mine);
    };
    EXPECT_EQ(stand_of(at, wait),
              "deadlock: test cannot go on at tick 20\n"
              "node1/worker waits for schedule_timeout_interruptible(&ats->delete_resp_wq) since tick 0\n"
              "node1/test waits for down(&ats->ats_sem) since tick 20\n");
    EXPECT_THROW(at.sim->join(worker), exec::stalled);

    // Life goes on without the one whose caller has gone, and with those who can be helped.
    exec::send_signal(worker);
    at.finish();
    EXPECT_EQ(at.sim->report(), "");
}

TEST(stands, no_end_in_sight_is_one_too)
{
    one_machine at({.patience_ticks = 100});
    at.run([] { schedule_timeout_uninterruptible(100); });
    EXPECT_THAT(stand_of(at, [] { schedule_timeout_uninterruptible(101); }),
                HasSubstr("no end in sight: test cannot go on at tick 100"));
}

TEST(stands, spinning_for_what_nobody_can_release_is_one_too)
{
    one_machine at;
    spinlock_t lock;
    spin_lock_init(&lock);
    const auto take = [&] { spin_lock_irqsave(&lock); };
    at.run(take); // never released
    exec::task& other = at.host.start("other", take);
    EXPECT_THAT(stand_of(at, take), HasSubstr("node1/other spins since tick 0\nnode1/test spins since tick 0\n"));
    at.run([&] { spin_unlock_irqrestore(&lock, 1); });
    at.sim->join(other);
}

TEST(exceptions, of_two_tasks_in_their_handlers_are_not_mixed_up)
{
    one_machine at;
    std::vector<int> rethrown;
    for (const int number : {1, 2, 3}) {
        at.at(0, "catcher", [&, number] {
            try {
                try {
                    throw number;
                } catch (int) {
                    schedule_timeout_uninterruptible(static_cast<unsigned long>(number));
                    throw; // the one this task caught
                }
            } catch (int caught) {
                EXPECT_EQ(caught, number);
                rethrown.push_back(caught);
            }
        });
    }
    at.finish();
    EXPECT_THAT(rethrown, ElementsAre(1, 2, 3));
}

TEST(misuse, dies_with_a_clear_line)
{
    one_machine at;
    semaphore sem;
    sema_init(&sem, 1);
    EXPECT_DEATH(down(&sem), "down is called outside of any task");
    EXPECT_DEATH(printk("x"), "printk is called outside of any task");
    EXPECT_DEATH(at.sim->enter(nullptr, "world", [] { printk("x"); }), "printk is called outside of any machine");
    EXPECT_DEATH(std::thread([&] { at.run([] {}); }).join(), "a simulation is for one thread");
}

} // namespace
