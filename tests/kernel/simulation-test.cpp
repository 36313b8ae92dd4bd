// The simulated executor. Tests the order of its tasks, its clock, its reports of deadlocks, and exceptions in fibers.
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

// Returns the log of a machine on which five tasks compete for a semaphore. The log shows the order in which the tasks
// have run.
std::string log_of_busy_machine(const exec::simulation_options& options)
{
    one_machine world(options);
    semaphore sem;
    sema_init(&sem, 1);
    for (int name = 0; name < 5; ++name) {
        world.at(static_cast<uint64_t>(name / 2), "task", [&, name] {
            for (int i = 0; i < 4; ++i) {
                down(&sem);
                printk("%d", name);
                up(&sem);
                if (i == name) schedule_timeout_uninterruptible(1);
            }
        });
    }
    world.finish();
    return world.host.log.raw();
}

TEST(order, depends_on_the_seed_and_on_nothing_else)
{
    std::set<std::string> runs;
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        const exec::simulation_options options{.seed = seed, .explore_switches = true};
        const std::string run = log_of_busy_machine(options);
        EXPECT_EQ(run, log_of_busy_machine(options)) << "with seed " << seed;
        runs.insert(run);
    }
    EXPECT_GT(runs.size(), 10u);
    EXPECT_EQ(log_of_busy_machine({.seed = 1}), log_of_busy_machine({.seed = 2})) << "switches are not explored";
}

// Two tasks each read a number, may be preempted, and write the number plus one. Runs them in all orders that deviate
// at most `deviations` times from the plain order. Returns the possible results, and stores the number of orders in
// `*orders`.
std::set<int> outcomes_of_a_race(int deviations, uint64_t* orders)
{
    exec::systematic_schedule order(deviations);
    std::set<int> outcomes;
    do {
        one_machine world({.order = &order});
        semaphore switch_place; // tasks may switch in down() and up(); none waits, because there is a unit for each
        sema_init(&switch_place, 2);
        int number = 0;
        const auto add_one = [&] {
            const int value = number;
            down(&switch_place);
            up(&switch_place);
            number = value + 1;
        };
        world.at(0, "first", add_one);
        world.at(0, "second", add_one);
        order.explore(true);
        world.sim->settle();
        outcomes.insert(number);
        world.finish();
    } while (order.next());
    *orders = order.orders_tried();
    return outcomes;
}

TEST(order, a_systematic_schedule_tries_all_within_its_bound_and_finds_the_one_that_loses_an_update)
{
    uint64_t orders;
    EXPECT_THAT(outcomes_of_a_race(0, &orders), ElementsAre(2));
    EXPECT_EQ(orders, 1u);
    EXPECT_THAT(outcomes_of_a_race(1, &orders), ElementsAre(1, 2));
    EXPECT_EQ(orders, 4u); // the plain order, the second task first, a switch in down(), a switch in up()
}

// Two tasks run in 1000 orders. Counts the orders in which the task "many steps" begins and ends while the task "two
// steps" is in its only call of step().
int orders_that_hold_a_task_back(const std::function<std::unique_ptr<exec::schedule>(uint64_t seed)>& make_order)
{
    int hits = 0;
    for (uint64_t seed = 1; seed <= 1000; ++seed) {
        const auto order = make_order(seed);
        one_machine world({.order = order.get()});
        semaphore switch_place; // tasks may switch in down() and up(); none waits, because there is a unit for each
        sema_init(&switch_place, 2);
        const auto step = [&] {
            down(&switch_place);
            up(&switch_place);
        };
        bool has_begun = false, has_ended = false, began_between = false;
        world.at(0, "two steps", [&] {
            has_begun = true;
            step();
            has_ended = true;
        });
        world.at(0, "many steps", [&] {
            began_between = has_begun && !has_ended;
            for (int i = 0; i < 20; ++i) step();
            hits += began_between && !has_ended;
        });
        world.finish();
    }
    return hits;
}

TEST(order, a_priority_schedule_holds_a_task_back_at_least_as_often_as_its_bound_says)
{
    constexpr int tasks = 2, choices = 64; // the run has about 45 choices
    const auto by_priority = [](int depth) {
        return [depth](uint64_t seed) {
            return std::make_unique<exec::priority_schedule>(
                exec::priority_options{.seed = seed, .depth = depth, .round_choices = choices});
        };
    };
    EXPECT_EQ(orders_that_hold_a_task_back(by_priority(1)), 0) << "without a change, the first task runs to its end";
    EXPECT_GE(orders_that_hold_a_task_back(by_priority(2)), 1000 / (tasks * choices));
    EXPECT_EQ(orders_that_hold_a_task_back([](uint64_t seed) { return std::make_unique<exec::random_schedule>(seed); }),
              0);
}

// Runs a scenario once for each element. The element is the number of tasks that start at the same tick. If an element
// differs from the previous one, the scenario offers the schedule other choices than in its previous run.
void run_with_tasks(const std::vector<int>& task_counts)
{
    exec::systematic_schedule order(1);
    for (const int count : task_counts) {
        one_machine world({.order = &order});
        for (int i = 0; i < count; ++i) world.at(0, "task", [] {});
        order.explore(true);
        world.finish();
        order.next();
    }
}

TEST(order, a_systematic_schedule_refuses_a_scenario_that_is_not_the_same_in_each_run)
{
    run_with_tasks({3, 3});
    EXPECT_DEATH(run_with_tasks({2, 3}), "choice 0 was among 2 tasks and is now among 3");
    EXPECT_DEATH(run_with_tasks({3, 2}), "choice 0 was among 3 tasks and is now among 2");
    EXPECT_DEATH(run_with_tasks({3, 1}), "it made 2 choices, and now 0");
}

TEST(time, jumps_to_each_deadline_and_serves_those_of_one_tick_in_order)
{
    one_machine world({.start_tick = 1000});
    std::vector<std::string> notes;
    const auto note = [&](const char* name) { notes.push_back(name + std::to_string(world.sim->now())); };
    world.at(1020, "b", [&] { note("b"); });
    world.at(1010, "a", [&] {
        note("a");
        schedule_timeout_uninterruptible(10);
        note("a");
    });
    world.at(1020, "c", [&] { note("c"); });
    world.sim->run_until(1019);
    EXPECT_THAT(notes, ElementsAre("a1010"));
    EXPECT_EQ(world.sim->now(), 1019u);
    world.sim->run_for(1);
    EXPECT_THAT(notes, ElementsAre("a1010", "b1020", "c1020", "a1020"));
    world.sim->run_until(500'000'000); // returns at once, because nothing is due
    EXPECT_EQ(world.sim->now(), 500'000'000u);
}

TEST(wake_ups, are_never_lost_and_several_count_as_one)
{
    one_machine world;
    std::vector<uint64_t> wake_ticks;
    exec::task& sleeper = world.at(0, "sleeper", [&] {
        schedule_timeout_uninterruptible(5);
        world.sim->wake(*exec::current_task());
        world.sim->wake(*exec::current_task());
        for (int i = 0; i < 4; ++i) {
            world.sim->park(get_jiffies() + 100, "mail", "box");
            wake_ticks.push_back(get_jiffies());
        }
    });
    world.at(7, "postman", [&] {
        world.sim->wake(sleeper);
        world.sim->wake(sleeper);
    });
    world.at(9, "postman", [&] { world.sim->wake(sleeper); });
    world.finish();
    EXPECT_THAT(wake_ticks, ElementsAre(5u, 7u, 9u, 109u));
}

// Returns the report of the stall that `body` causes.
std::string report_of_stall(one_machine& world, const std::function<void()>& body)
{
    try {
        world.run(body);
    } catch (const exec::stalled& stall) {
        return stall.what();
    }
    return "it went on";
}

TEST(stalls, are_reported_with_all_tasks_and_what_they_wait_for)
{
    one_machine world;
    semaphore mine;
    sema_init_named(&mine, 0, "&ats->ats_sem");
    wait_queue_head_t answers;
    init_waitqueue_head_named(&answers, "&ats->delete_resp_wq");
    exec::task& worker = world.at(0, "worker", [&] {
        wait_event_interruptible_timeout(
            &answers, [] { return false; }, ULONG_MAX);
    });
    const auto wait = [&] {
        schedule_timeout_uninterruptible(20);
        down(&mine);
    };
    EXPECT_EQ(report_of_stall(world, wait),
              "deadlock: test cannot go on at tick 20\n"
              "node1/worker waits for schedule_timeout_interruptible(&ats->delete_resp_wq) since tick 0\n"
              "node1/test waits for down(&ats->ats_sem) since tick 20\n");
    EXPECT_THROW(world.sim->join(worker), exec::stalled);

    // The other tasks can still continue.
    exec::send_signal(worker);
    world.finish();
    EXPECT_EQ(world.sim->report(), "");
}

TEST(stalls, include_a_wait_beyond_the_patience)
{
    one_machine world({.patience_ticks = 100});
    world.run([] { schedule_timeout_uninterruptible(100); });
    EXPECT_THAT(report_of_stall(world, [] { schedule_timeout_uninterruptible(101); }),
                HasSubstr("no end in sight: test cannot go on at tick 100"));
}

TEST(stalls, include_spinning_for_a_lock_that_nobody_releases)
{
    one_machine world;
    spinlock_t lock;
    spin_lock_init(&lock);
    const auto take = [&] { spin_lock_irqsave(&lock); };
    world.run(take); // keeps the lock
    exec::task& other = world.host.start("other", take);
    EXPECT_THAT(report_of_stall(world, take),
                HasSubstr("node1/other spins since tick 0\nnode1/test spins since tick 0\n"));
    world.run([&] { spin_unlock_irqrestore(&lock, 1); });
    world.sim->join(other);
}

TEST(exceptions, of_two_tasks_in_their_handlers_are_not_mixed_up)
{
    one_machine world;
    std::vector<int> numbers;
    for (const int number : {1, 2, 3}) {
        world.at(0, "catcher", [&, number] {
            try {
                try {
                    throw number;
                } catch (int) {
                    schedule_timeout_uninterruptible(static_cast<unsigned long>(number));
                    throw; // the exception that this task has caught
                }
            } catch (int exception) {
                EXPECT_EQ(exception, number);
                numbers.push_back(exception);
            }
        });
    }
    world.finish();
    EXPECT_THAT(numbers, ElementsAre(1, 2, 3));
}

TEST(misuse, dies_with_a_clear_line)
{
    one_machine world;
    semaphore sem;
    sema_init(&sem, 1);
    EXPECT_DEATH(down(&sem), "down is called outside of any task");
    EXPECT_DEATH(printk("x"), "printk is called outside of any task");
    EXPECT_DEATH(world.sim->enter(nullptr, "world", [] { printk("x"); }), "printk is called outside of any machine");
    EXPECT_DEATH(std::thread([&] { world.run([] {}); }).join(), "a simulation is for one thread");
}

} // namespace
