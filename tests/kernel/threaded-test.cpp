// The kernel on real threads, mainly for the thread sanitizer: semaphores, spin locks, tasks, and all parts of a
// machine at once. No test depends on real time.
#include <algorithm>
#include <gtest/gtest.h>

#include "host/kernel/machine.h"
#include "host/kernel/thread-variables.h"
#include "host/world/module-folder.h"
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

// A part of the machine that other parts find by its type.
struct counter final : kernel::service {
    explicit counter(kernel::machine&) {}
    std::vector<std::string> left_by(const kernel::module_code&) const override { return {}; }
    std::atomic<int> count = 0;
};
struct other_counter final : kernel::service {
    explicit other_counter(kernel::machine& home) : first(home.get<counter>()) {}
    counter& first;
};

// All threads use every part of a machine at once. Each thread uses names and entries of its own, and shared ones.
TEST_F(threads, share_all_parts_of_a_machine)
{
    const std::string probe = world::default_module_folder() + "/probe.so";
    const kernel_module_t nobody{};
    const kernel::thread_variables_layout layout{.first_values = "", .bytes = 1};
    kernel::thread_variables image(layout);
    std::atomic<int> line_count = 0;
    host.enter("test", [&] {
        create_proc_entry("shared", 0644)->read_proc = [](char* page, char**, off_t, int, int* eof, void*) {
            *page = 'x';
            *eof = 1;
            return 1;
        };
        inter_module_register("shared", nullptr, &host);
    });
    host.faults.fail_calls("a call", rounds);
    const auto use_proc = [&](const std::string& own) {
        std::string text;
        std::vector<kernel::proc_listing> entries;
        kernel::proc_listing entry;
        EXPECT_NE(create_proc_entry(own.c_str(), 0644), nullptr);
        EXPECT_EQ(host.proc.read("shared", 0, 1, &text), 1);
        EXPECT_EQ(host.proc.list("", &entries), 0);
        EXPECT_EQ(host.proc.stat(own, &entry), 0);
        host.proc.path_owned_by(nobody);
        remove_proc_entry(own.c_str());
    };
    const auto use_names = [&](const std::string& own) {
        inter_module_register(own.c_str(), nullptr, &own);
        EXPECT_EQ(inter_module_get("shared"), &host);
        EXPECT_GE(host.inter_modules.references("shared"), 1);
        EXPECT_GE(host.inter_modules.names().size(), 2u);
        host.inter_modules.name_owned_by(nobody);
        inter_module_put("shared");
        inter_module_unregister(own.c_str());
    };
    const auto use_log = [&](const std::string& own) {
        const int follower = host.log.follow([&](const kernel::log_line&) { ++line_count; });
        printk("%s\n", own.c_str());
        host.log.unfollow(follower);
        uint64_t next = 0;
        host.log.lines_from(0, 10, &next);
        host.log.lines();
        host.log.raw();
        if (next > 50) host.log.clear();
    };
    const auto use_memory = [&](const std::string&) {
        void* memory = kmalloc(16, GFP_KERNEL);
        char object = 0;
        const kernel::shown_object shown(host.addresses, &object, 1);
        EXPECT_NE(host.addresses.nominal(memory), host.addresses.nominal(&object));
        static std::atomic<uintptr_t> unknown = 0x10000; // no object has this address
        for (int i = 0; i < 20; ++i)
            host.addresses.nominal(reinterpret_cast<void*>(unknown.fetch_add(1, std::memory_order_relaxed)));
        EXPECT_GE(host.memory.blocks(), 1u);
        EXPECT_GE(host.memory.bytes(), 16u);
        EXPECT_GE(host.memory.total_allocations(), 1u);
        EXPECT_FALSE(host.memory.leaks().empty());
        kfree(memory);
        host.random.fill(&object, 1);
        host.faults.should_fail("a call");
    };
    // One thread at a time loads the module, because the sanitizer does not see the locks of the dynamic linker. The
    // others look for the module meanwhile.
    std::mutex load_mutex;
    const auto use_modules = [&](const std::string&) {
        const std::unique_lock turn(load_mutex, std::try_to_lock);
        const bool has_loaded = turn && host.modules.insmod(probe);
        host.modules.set_logger_level(host.modules.logger_level());
        host.modules.is_loaded("probe");
        {
            const kernel::held_symbol text(host.modules, "probe", "probe_text");
            EXPECT_TRUE(!text || std::string(text.as<const char* (*)()>()()) == "default");
        }
        EXPECT_LE(host.modules.loaded().size(), 1u);
        while (has_loaded && !host.modules.rmmod("probe")) exec->relax(); // others may hold its symbol
    };
    const auto use_services = [&](const std::string&) {
        ++host.get<counter>().count;
        EXPECT_EQ(&host.get<other_counter>().first, &host.get<counter>());
        ++*image.copy_of_this_thread();
    };
    const std::function<void(const std::string&)> uses[] = {use_proc,   use_names,   use_log,
                                                            use_memory, use_modules, use_services};
    std::vector<exec::task*> tasks;
    for (size_t number = 0; number < 3; ++number)
        tasks.push_back(&host.start("user", [&, number] {
            const std::string own = "own " + std::to_string(number);
            for (size_t i = 0; i < rounds; ++i) uses[(i + 2 * number) % std::size(uses)](own);
        }));
    for (exec::task* each : tasks) exec->join(*each);
    constexpr int uses_of_each = 3 * rounds / static_cast<int>(std::size(uses));
    EXPECT_EQ(host.get<counter>().count, uses_of_each);
    EXPECT_EQ(host.faults.failures(), uses_of_each);
    EXPECT_EQ(host.memory.blocks(), 0u);
    EXPECT_EQ(host.inter_modules.references("shared"), 0);
    EXPECT_GE(line_count, uses_of_each) << "each thread saw its own lines";
}

TEST_F(threads, a_task_that_throws_dies)
{
    EXPECT_THROW(host.enter("test", [] { throw 5; }), int);
    EXPECT_EQ(exec::current_task(), nullptr);
    EXPECT_DEATH(exec->join(host.start("worker", [] { throw std::runtime_error("lost"); })),
                 "node1, in worker: an exception escaped: lost");
}

} // namespace
