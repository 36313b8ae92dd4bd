// Semaphores, wait queues, sleeps, signals and spin locks, in simulated time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/errno.h"
#include "kernel/memory.h"
#include "kernel/proc.h"
#include "tests/kernel/one-machine.h"

using testing::ElementsAre;

namespace
{

TEST(semaphores, a_new_task_does_not_overtake_waiting_tasks)
{
    one_machine world;
    semaphore sem;
    sema_init(&sem, 1);
    std::vector<std::string> order;
    const auto take = [&](const char* name, bool interruptible) {
        return [&sem, &order, name, interruptible] {
            if (interruptible)
                EXPECT_EQ(down_interruptible(&sem), 0);
            else
                down(&sem);
            order.emplace_back(name);
            up(&sem);
        };
    };
    world.at(1, "first", take("first", false));
    world.at(2, "second", take("second", true));
    world.at(3, "third", take("third", false));
    world.run([&] {
        down(&sem);
        schedule_timeout_uninterruptible(10);
        up(&sem);
        down(&sem); // no unit is free, because up() gave the unit to the first task in the queue
        order.emplace_back("latecomer");
        up(&sem);
    });
    EXPECT_THAT(order, ElementsAre("first", "second", "third", "latecomer"));
}

TEST(semaphores, a_signal_ends_a_wait_but_does_not_refuse_a_free_unit)
{
    one_machine world;
    semaphore sem;
    sema_init(&sem, 1);
    world.run([&] {
        exec::send_signal(*exec::current_task());
        EXPECT_EQ(down_interruptible(&sem), 0) << "a unit was free";
        EXPECT_EQ(down_interruptible(&sem), -EK_RESTARTSYS) << "no unit was free";
        EXPECT_EQ(get_jiffies(), 0u);
    });
    exec::task& deaf = world.at(0, "deaf", [&] {
        exec::send_signal(*exec::current_task());
        down(&sem);
        EXPECT_EQ(get_jiffies(), 9u);
    });
    exec::task& sleeper = world.at(0, "sleeper", [&] {
        EXPECT_EQ(down_interruptible(&sem), -EK_RESTARTSYS);
        EXPECT_EQ(get_jiffies(), 5u);
        exec::clear_signal(*exec::current_task());
        EXPECT_FALSE(signal_pending());
    });
    world.at(5, "sender", [&] {
        exec::send_signal(sleeper);
        exec::send_signal(deaf);
    });
    world.at(9, "giver", [&] { up(&sem); });
    world.finish();
    EXPECT_EQ(sem.count, 0);
}

TEST(semaphores, a_unit_is_not_lost_when_its_task_gets_a_signal_at_the_same_time)
{
    bool has_been_taken = false;
    bool has_been_interrupted = false;
    for (uint64_t seed = 1; seed <= 100; ++seed) {
        one_machine world({.seed = seed, .explore_switches = true});
        semaphore sem;
        sema_init(&sem, 0);
        exec::task& waiter = world.at(0, "waiter", [&] {
            const bool has_unit = down_interruptible(&sem) == 0;
            if (has_unit) {
                has_been_taken = true;
                up(&sem);
            } else {
                has_been_interrupted = true;
            }
        });
        world.at(3, "sender", [&] { exec::send_signal(waiter); });
        world.at(3, "giver", [&] { up(&sem); });
        world.finish();
        EXPECT_EQ(sem.count, 1) << "with seed " << seed;
    }
    EXPECT_TRUE(has_been_taken);
    EXPECT_TRUE(has_been_interrupted);
}

TEST(wait_queues, sleep_until_the_condition_a_signal_or_the_timeout_and_not_a_tick_longer)
{
    struct {
        const char* name;
        uint64_t wake_tick, true_tick, signal_tick, timeout, end_tick;
    } const cases[] = {
        {"woken with the condition", 115, 115, 0, 20, 115},
        {"woken without the condition sleeps on for the rest", 105, 0, 0, 20, 120},
        {"woken without the condition, then with it", 105, 110, 0, 20, 110},
        {"nobody comes", 0, 0, 0, 20, 120},
        {"a signal", 0, 0, 107, 20, 107},
        {"a signal that was pending", 0, 0, 100, 20, 100},
        {"the condition holds already", 0, 100, 0, 20, 100},
        {"no time at all", 0, 0, 0, 0, 100},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        one_machine world({.start_tick = 100});
        wait_queue_head_t queue;
        init_waitqueue_head(&queue);
        bool condition = false;
        for (const uint64_t tick : {each.wake_tick, each.true_tick}) {
            if (tick == 0) continue;
            world.at(tick, "waker", [&, tick] {
                condition = tick == each.true_tick;
                wake_up_interruptible(&queue);
            });
        }
        exec::task& sleeper = world.at(100, "sleeper", [&] {
            wait_event_interruptible_timeout(
                &queue, [&] { return condition; }, each.timeout);
            EXPECT_EQ(get_jiffies(), each.end_tick);
            EXPECT_TRUE(list_empty(&queue.sleepers));
            exec::clear_signal(*exec::current_task());
            EXPECT_EQ(schedule_timeout_interruptible(5), 0u) << "no wake-up is left for the next sleep";
        });
        if (each.signal_tick == 100) exec::send_signal(sleeper);
        if (each.signal_tick > 100) world.at(each.signal_tick, "sender", [&] { exec::send_signal(sleeper); });
        world.finish();
    }
}

TEST(sleeps, a_signal_ends_only_an_interruptible_one_which_returns_the_remaining_ticks)
{
    one_machine world;
    unsigned long interruptible_left = 0;
    exec::task& light = world.at(0, "light", [&] { interruptible_left = schedule_timeout_interruptible(20); });
    exec::task& deep = world.at(0, "deep", [&] {
        EXPECT_EQ(schedule_timeout_uninterruptible(20), 0u);
        EXPECT_EQ(get_jiffies(), 20u);
        EXPECT_EQ(schedule_timeout_interruptible(20), 20u) << "the signal is still pending";
    });
    world.at(8, "disturber", [&] {
        for (exec::task* each : {&light, &deep}) {
            exec::send_signal(*each);
            world.sim->wake(*each);
        }
    });
    world.finish();
    EXPECT_EQ(interruptible_left, 12u);
    EXPECT_EQ(world.host.signals_seen, 2u) << "one sleep was cut, one did not begin";
    wait_queue_head_t queue;
    init_waitqueue_head(&queue);
    semaphore sem;
    sema_init(&sem, 0);
    const std::function<void()> interruptible_waits[] = {
        [&] { EXPECT_EQ(down_interruptible(&sem), 0); },
        [] { schedule_timeout_interruptible(1); },
    };
    for (const auto& wait : interruptible_waits) {
        exec::task& waiter = world.at(0, "waiter", [&] {
            wait();
            wait_queue_t sleeper;
            prepare_to_wait(&queue, &sleeper); // a wake-up of the queue would end the next sleep; a signal must not
            EXPECT_EQ(schedule_timeout_uninterruptible(10), 0u);
            finish_wait(&queue, &sleeper);
        });
        world.at(0, "disturber", [&] {
            up(&sem);
            schedule_timeout_uninterruptible(5);
            exec::send_signal(waiter);
        });
        world.finish();
    }
    exec::task* last = nullptr;
    world.at(60, "too late", [&] { exec::send_signal(*last); });
    last = &world.at(50, "last", [] { EXPECT_EQ(schedule_timeout_interruptible(10), 0u); });
    world.finish();
    EXPECT_EQ(world.host.signals_seen, 2u) << "the signal came when the sleep was over";
}

// A task sleeps in a wait queue until a condition holds. The check of the condition may sleep itself, for example to
// take a semaphore. A wake-up of the outer wait queue may come during this inner sleep. The outer sleep must still end.
TEST(wait_queues, a_wake_up_is_kept_while_the_sleeper_waits_for_something_else)
{
    one_machine world;
    wait_queue_head_t outer, inner;
    semaphore sem;
    init_waitqueue_head(&outer);
    init_waitqueue_head(&inner);
    sema_init(&sem, 0);
    const std::function<void()> waits[] = {
        [&] {
            wait_event_interruptible_timeout(
                &inner, [] { return false; }, 10);
        },
        [&] { down(&sem); },
        [&] { EXPECT_EQ(down_interruptible(&sem), 0); },
    };
    uint64_t begin = 0;
    for (const auto& wait : waits) {
        bool is_done = false;
        world.at(begin, "sleeper", [&] {
            wait_queue_t sleeper;
            prepare_to_wait(&outer, &sleeper);
            while (true) {
                const bool was_done = is_done;
                wait();
                if (was_done) break;
                schedule_timeout_uninterruptible(1000);
            }
            finish_wait(&outer, &sleeper);
            EXPECT_EQ(get_jiffies(), begin + 20);
        });
        world.at(begin + 5, "waker", [&] {
            is_done = true;
            wake_up_interruptible(&outer);
        });
        for (const uint64_t later : {10, 20}) world.at(begin + later, "releaser", [&] { up(&sem); });
        world.finish();
        sema_init(&sem, 0);
        begin = world.sim->now();
    }
    EXPECT_DEATH(world.run([&] {
        wait_queue_t first, second;
        prepare_to_wait(&outer, &first);
        prepare_to_wait(&inner, &second);
        finish_wait(&outer, &first);
    }),
                 "is not in &outer, or joined another wait queue later");
}

TEST(spin_locks, a_release_without_a_lock_and_an_entry_with_a_lock_die)
{
    one_machine world;
    spinlock_t lock;
    spin_lock_init(&lock);
    EXPECT_DEATH(world.run([&] { spin_unlock_irqrestore(&lock, 0); }), "the lock is not held");
    const auto enter_with_lock = [&] {
        spin_lock_irqsave(&lock);
        must_not_hold_spin_lock("ibat_attach");
    };
    EXPECT_DEATH(world.run(enter_with_lock), "ibat_attach is called with a spin lock held");
}

TEST(contexts_that_may_not_sleep, a_blocking_call_dies_and_names_both)
{
    one_machine world;
    semaphore sem;
    sema_init(&sem, 1); // a unit is free, so down() does not sleep; nevertheless the call is a fault
    spinlock_t lock;
    spin_lock_init(&lock);
    char byte = 0;
    const std::pair<const char*, std::function<void()>> calls[] = {
        {"down", [&] { down(&sem); }},
        {"down_interruptible", [&] { down_interruptible(&sem); }},
        {"schedule_timeout_interruptible", [] { schedule_timeout_interruptible(1); }},
        {"schedule_timeout_uninterruptible", [] { schedule_timeout_uninterruptible(1); }},
        {"kmalloc", [] { kmalloc(1, GFP_KERNEL); }},
        {"copy_from_user", [&] { copy_from_user(&byte, &byte, 1); }},
        {"remove_proc_entry", [] { remove_proc_entry("none"); }},
        {"mail", [&] { world.sim->park(5, "mail", "box"); }},
        {"insmod", [&] { world.host.modules.insmod("none.so"); }},
        {"rmmod", [&] { world.host.modules.rmmod("none"); }},
    };
    for (const auto& each : calls) {
        const auto& call = each.second;
        const auto in_completion = [&] {
            const exec::atomic_section completion("a send completion");
            call();
        };
        const auto under_lock = [&] {
            spin_lock_irqsave(&lock);
            call();
        };
        const std::string start = "node1, in test: " + std::string(each.first) + " may sleep, and is called ";
        EXPECT_DEATH(world.run(in_completion), start + "in a send completion, which may not");
        EXPECT_DEATH(world.run(under_lock), start + "with a spin lock held");
    }
    world.run([&] { // these calls never sleep, so they are allowed
        const exec::atomic_section completion("a send completion");
        up(&sem);
        kfree(kmalloc(1, GFP_ATOMIC));
        exec::send_signal(*exec::current_task());
    });
}

} // namespace
