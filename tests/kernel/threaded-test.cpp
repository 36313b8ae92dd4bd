// The same kernel on real threads: what a thread sanitizer looks at. Nothing here waits for time to pass.
#include <gtest/gtest.h>

#include "host/kernel/machine.h"
#include "kernel/errno.h"
#include "kernel/memory.h"
#include "kernel/module.h"
#include "kernel/printk.h"
#include "kernel/proc.h"
#include "kernel/sync.h"
#include "kernel/time.h"

namespace
{

constexpr int rounds = 300;

struct threads : testing::Test {
    std::unique_ptr<kernel::executor> exec = kernel::make_threaded_executor();
    kernel::machine host{*exec, "node1"};
    std::vector<kernel::task*> tasks;

    kernel::task& start(const char* name, std::function<void()> body)
    {
        tasks.push_back(&host.start(name, std::move(body)));
        return *tasks.back();
    }

    void finish()
    {
        for (kernel::task* each : tasks) exec->join(*each);
        tasks.clear();
    }
};

TEST_F(threads, exclude_each_other_and_lose_no_unit_to_signals)
{
    semaphore sem;
    sema_init(&sem, 1);
    spinlock_t lock;
    spin_lock_init(&lock);
    int under_semaphore = 0, under_lock = 0; // plain: the sanitizer says whether the locks hold
    std::atomic<int> expected = 0;
    const auto work = [&] {
        for (int i = 0; i < rounds; ++i) {
            const unsigned long flags = spin_lock_irqsave(&lock);
            ++under_lock;
            spin_unlock_irqrestore(&lock, flags);
            if (down_interruptible(&sem) != 0) {
                kernel::clear_signal(*kernel::current_task());
                continue;
            }
            ++under_semaphore;
            ++expected;
            kfree(kmalloc(16, GFP_KERNEL));
            printk("<6>round %d\n", i);
            up(&sem);
        }
    };
    kernel::task& first = start("first", work);
    kernel::task& second = start("second", work);
    start("third", work);
    host.enter("sender", [&] {
        for (int i = 0; i < rounds; ++i) {
            kernel::send_signal(i % 2 == 0 ? first : second);
            exec->relax();
        }
    });
    finish();
    EXPECT_EQ(under_semaphore, expected);
    EXPECT_EQ(under_lock, 3 * rounds);
    EXPECT_EQ(sem.count, 1);
    EXPECT_EQ(host.memory.blocks(), 0u);
    EXPECT_EQ(host.log.lines().size(), static_cast<size_t>(expected));
}

TEST_F(threads, use_a_module_while_it_comes_and_goes)
{
    std::atomic<bool> done = false;
    std::atomic<int> answers = 0;
    const auto use = [&] {
        while (!done) {
            std::string text;
            const int result = host.proc.read("probe", 0, 100, &text);
            EXPECT_TRUE(result == 10 || result == -EK_NOENT) << result;
            if (result > 0) ++answers;
            if (const void* function = inter_module_get("probe_call")) {
                EXPECT_NE(host.modules.symbol("probe", "probe_text"), nullptr);
                EXPECT_GT(reinterpret_cast<int (*)()>(const_cast<void*>(function))(), 0);
                inter_module_put("probe_call");
            }
        }
    };
    start("first", use);
    start("second", use);
    for (int loads = 0; loads < 20; ++loads) {
        const kernel::load_result loaded = host.modules.insmod(ATS_MODULE_DIR "/probe.so");
        ASSERT_TRUE(loaded) << loaded.why;
        for (const int before = answers; answers == before;) exec->relax();
        while (host.modules.rmmod("probe").error == -EK_BUSY) exec->relax();
    }
    done = true;
    finish();
    EXPECT_GE(answers, 20);
}

TEST_F(threads, a_task_that_throws_or_sleeps_where_it_may_not_dies)
{
    EXPECT_THROW(host.enter("test", [] { throw 5; }), int);
    EXPECT_EQ(kernel::current_task(), nullptr);
    EXPECT_DEATH(exec->join(host.start("worker", [] { throw std::runtime_error("lost"); })),
                 "node1, in worker: an exception escaped: lost");
    EXPECT_DEATH(host.enter("test",
                            [] {
                                const kernel::atomic_section timer("the request timer");
                                schedule_timeout_interruptible(1);
                            }),
                 "schedule_timeout_interruptible may sleep, and is called in the request timer");
}

} // namespace
