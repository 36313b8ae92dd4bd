// Semaphores, spin locks and tasks on real threads, mainly for the thread sanitizer. No test depends on real time.
#include <gtest/gtest.h>

#include "host/kernel/machine.h"
#include "kernel/memory.h"
#include "kernel/printk.h"
#include "kernel/sync.h"
#include "kernel/time.h"

namespace
{

constexpr int rounds = 300;

struct threads : testing::Test {
    std::unique_ptr<exec::executor> exec = exec::make_threaded_executor();
    kernel::machine host{*exec, "node1"};
};

TEST_F(threads, exclude_each_other_and_lose_no_unit_to_signals)
{
    semaphore sem;
    sema_init(&sem, 1);
    spinlock_t lock;
    spin_lock_init(&lock);
    int semaphore_count = 0, lock_count = 0; // not atomic: the sanitizer finds a lock that does not work
    std::atomic<int> unit_count = 0;
    const auto work = [&] {
        for (int i = 0; i < rounds; ++i) {
            const unsigned long flags = spin_lock_irqsave(&lock);
            ++lock_count;
            spin_unlock_irqrestore(&lock, flags);
            if (down_interruptible(&sem) != 0) {
                exec::clear_signal(*exec::current_task());
                continue;
            }
            ++semaphore_count;
            ++unit_count;
            kfree(kmalloc(16, GFP_KERNEL));
            printk("<6>round %d\n", i);
            up(&sem);
        }
    };
    exec::task& first = host.start("first", work);
    exec::task& second = host.start("second", work);
    exec::task& third = host.start("third", work);
    host.enter("sender", [&] {
        for (int i = 0; i < rounds; ++i) {
            exec::send_signal(i % 2 == 0 ? first : second);
            exec->relax();
        }
    });
    for (exec::task* each : {&first, &second, &third}) exec->join(*each);
    EXPECT_EQ(semaphore_count, unit_count);
    EXPECT_EQ(lock_count, 3 * rounds);
    EXPECT_EQ(sem.count, 1);
    EXPECT_EQ(host.memory.blocks(), 0u);
    EXPECT_EQ(host.log.lines().size(), static_cast<size_t>(unit_count));
}

TEST_F(threads, a_task_that_throws_dies)
{
    EXPECT_THROW(host.enter("test", [] { throw 5; }), int);
    EXPECT_EQ(exec::current_task(), nullptr);
    EXPECT_DEATH(exec->join(host.start("worker", [] { throw std::runtime_error("lost"); })),
                 "node1, in worker: an exception escaped: lost");
}

} // namespace
