// The parts of a machine that keep account: memory, failures on demand, the log, randomness, services.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/kernel/print-capture.h"
#include "kernel/errno.h"
#include "kernel/memory.h"
#include "kernel/module.h"
#include "kernel/printk.h"
#include "kernel/proc.h"
#include "tests/kernel/one-machine.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

TEST(memory, what_is_not_freed_is_listed_and_told_when_the_machine_goes)
{
    one_machine at;
    testing::internal::CaptureStderr();
    {
        kernel::machine leaky(*at.sim, "node2");
        leaky.enter("test", [] {
            EXPECT_NE(kmalloc(24, GFP_KERNEL), nullptr);
            kfree(kmalloc(8, GFP_ATOMIC));
            kfree(nullptr);
        });
        EXPECT_EQ(leaky.memory.blocks(), 1u);
        EXPECT_EQ(leaky.memory.bytes(), 24u);
        EXPECT_EQ(leaky.memory.total_allocations(), 2u);
    }
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("node2 leaked 24 bytes allocated by "));
    const auto free_twice = [] {
        void* memory = kmalloc(8, GFP_KERNEL);
        kfree(memory);
        kfree(memory);
    };
    EXPECT_DEATH(at.run(free_twice), "kfree: .* is not memory of this machine, or was freed before");
}

TEST(faults, each_failable_call_fails_once_as_it_would_by_itself)
{
    one_machine at;
    semaphore sem;
    sema_init(&sem, 1);
    char target = 'a';
    const char source = 'b';
    // Returns the names of the calls that failed.
    const auto call_all = [&] {
        std::string failed;
        if (down_interruptible(&sem) == -EK_RESTARTSYS)
            failed += "down_interruptible ";
        else
            up(&sem);
        void* memory = kmalloc(1, GFP_KERNEL);
        if (!memory) failed += "kmalloc ";
        kfree(memory);
        target = 'a';
        if (copy_from_user(&target, &source, 1) != 0) failed += target == 'a' ? "copy_from_user " : "?";
        if (!proc_mkdir("d")) failed += "proc_mkdir ";
        if (!create_proc_entry("e", 0)) failed += "create_proc_entry ";
        remove_proc_entry("d");
        remove_proc_entry("e");
        inter_module_register("n", nullptr, &source);
        if (!inter_module_get("n"))
            failed += "inter_module_get ";
        else
            inter_module_put("n");
        inter_module_unregister("n");
        return failed;
    };
    std::vector<std::string> failures;
    at.run([&] {
        for (uint64_t n = 1; failures.size() < 100; ++n) {
            at.host.faults.fail_nth(n);
            failures.push_back(call_all());
            EXPECT_EQ(at.host.faults.calls(), 6u);
            EXPECT_EQ(failures.back(), at.host.faults.failed_call() + (failures.back().empty() ? "" : " "));
            if (failures.back().empty()) break;
        }
        at.host.faults.fail_calls("proc_mkdir", 2);
        for (const char* expected : {"proc_mkdir ", "proc_mkdir ", ""}) EXPECT_EQ(call_all(), expected);
        at.host.faults.fail_calls("kmalloc");
        for (int i = 0; i < 3; ++i) EXPECT_EQ(call_all(), "kmalloc ");
        at.host.faults.disarm();
        EXPECT_EQ(call_all(), "");
    });
    EXPECT_THAT(failures, ElementsAre("down_interruptible ", "kmalloc ", "copy_from_user ", "proc_mkdir ",
                                      "create_proc_entry ", "inter_module_get ", ""));
}

TEST(log, keeps_texts_as_printed_and_shows_lines_as_a_reader_does)
{
    one_machine at({.start_tick = 12'345});
    std::vector<std::string> followed;
    const int handle = at.host.log.follow([&](const kernel::log_line& line) { followed.push_back(line.text); });
    at.run([] {
        printk("<6>INFO : one\n");
        printk("tw%co %d", 0, 2);
        printk(", continued <3>here\n\n");
        printk("<1>%s\n", std::string(3000, 'x').c_str()); // cut, and still a line
        printk("!\n");
    });
    at.host.log.unfollow(handle);
    const std::vector<kernel::log_line> lines = at.host.log.lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(kernel::format_line(lines[0]), "[   12.345] INFO : one");
    EXPECT_EQ(lines[0].raw, "<6>INFO : one\n");
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_EQ(lines[1].text, "two 2, continued <3>here");
    EXPECT_EQ(lines[1].priority, kernel::log_default_priority);
    EXPECT_EQ(lines[2].text, "");
    EXPECT_EQ(lines[3].text, std::string(2043, 'x')) << "2047 bytes with its priority and its line end";
    EXPECT_EQ(lines[4].text, "!");
    ASSERT_EQ(followed.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(followed[i], lines[i].text);
}

TEST(log, drops_the_oldest_lines_and_numbers_go_on)
{
    kernel::log small(3);
    for (int i = 0; i < 5; ++i) small.append(1, "line " + std::to_string(i) + "\n");
    small.append(2, "open");
    uint64_t next = 0;
    const auto texts = [&](uint64_t first, size_t limit) {
        std::string all;
        for (const kernel::log_line& line : small.lines_from(first, limit, &next)) all += line.text + ";";
        return all;
    };
    EXPECT_EQ(texts(0, 1), "line 3;");
    EXPECT_EQ(texts(next, 10), "line 4;");
    EXPECT_EQ(texts(next, 10), "") << "the last line is not finished";
    small.append(2, "ed\n");
    EXPECT_EQ(texts(next, 10), "opened;");
    EXPECT_EQ(next, 6u);
}

TEST(log, a_capture_takes_what_its_own_task_prints)
{
    one_machine at;
    std::string captured;
    at.at(1, "other", [] { printk("<6>other\n"); });
    at.run([&] {
        kernel::print_capture capture(kernel::print_capture::instead_of_log);
        printk("<6>mine %d\n", 1);
        schedule_timeout_uninterruptible(2);
        printk("mine 2\n");
        captured = capture.text();
    });
    EXPECT_EQ(captured, "mine 1\nmine 2\n");
    EXPECT_EQ(at.host.log.raw(), "<6>other\n");
}

TEST(randomness, repeats_with_the_seed)
{
    one_machine at;
    const auto bytes = [&](uint64_t seed) {
        std::string drawn(32, '\0');
        kernel::machine(*at.sim, "node2", {.random_seed = seed}).enter("test", [&] {
            get_random_bytes(drawn.data(), 32);
        });
        return drawn;
    };
    EXPECT_EQ(bytes(5), bytes(5));
    EXPECT_NE(bytes(5), bytes(6));
    EXPECT_NE(bytes(0), bytes(0));
}

std::vector<std::string> service_events;

struct first_service : kernel::service {
    explicit first_service(kernel::machine&) { service_events.emplace_back("+first"); }
    ~first_service() override { service_events.emplace_back("-first"); }
};

struct second_service : kernel::service {
    explicit second_service(kernel::machine& home) : task(home.start("second", [] {})), exec(home.exec())
    {
        home.get<first_service>();
        service_events.emplace_back("+second");
    }
    ~second_service() override
    {
        exec.join(task);
        service_events.emplace_back("-second");
    }
    kernel::task& task;
    kernel::executor& exec;
};

TEST(services, are_made_once_and_end_in_reverse)
{
    one_machine at;
    {
        kernel::machine machine(*at.sim, "node2");
        EXPECT_EQ(&machine.get<second_service>(), &machine.get<second_service>());
    }
    EXPECT_THAT(service_events, ElementsAre("+first", "+second", "-second", "-first"));
}

} // namespace
