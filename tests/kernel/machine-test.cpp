// The parts of a machine that keep account: memory and the log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/memory.h"
#include "kernel/printk.h"
#include "tests/kernel/one-machine.h"

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

TEST(fault_injector, forgets_one_plan_when_it_is_given_the_next)
{
    kernel::fault_injector faults;
    const auto failing = [&](const char* call) {
        std::string pattern;
        for (int i = 0; i < 5; ++i) pattern += faults.should_fail(call) ? 'x' : '.';
        return pattern;
    };
    faults.fail_nth(2, 2);
    EXPECT_EQ(failing("kmalloc"), ".x.x.");
    EXPECT_EQ(faults.failed_call(), "kmalloc");
    faults.fail_nth(2, 2);
    faults.fail_calls("add_timing", 3);
    EXPECT_EQ(failing("kmalloc"), ".....");
    EXPECT_EQ(failing("add_timing"), "xxx..");
    faults.fail_nth(1);
    EXPECT_EQ(failing("add_timing"), "x....");
    faults.disarm();
    EXPECT_EQ(failing("add_timing"), ".....");
    EXPECT_EQ(faults.failures(), 0u);
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

} // namespace
