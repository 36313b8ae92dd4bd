// Three parts of a machine: its memory, its fault injector and its log.
#include <climits>
#include <cstdarg>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/kernel/format.h"
#include "host/kernel/module-image.h"
#include "kernel/memory.h"
#include "kernel/printk.h"
#include "tests/kernel/one-machine.h"

using testing::HasSubstr;

namespace
{

TEST(memory, is_listed_and_reported_as_a_leak_unless_it_is_freed)
{
    one_machine world;
    testing::internal::CaptureStderr();
    {
        kernel::machine leaky(*world.sim, "node2");
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
    EXPECT_DEATH(world.run(free_twice), "kfree: .* is not memory of this machine, or was freed before");
}

TEST(fault_injector, forgets_its_plan_when_it_gets_another_one)
{
    kernel::fault_injector faults;
    const auto pattern_of = [&](const char* call) {
        std::string pattern;
        for (int i = 0; i < 5; ++i) pattern += faults.should_fail(call) ? 'x' : '.';
        return pattern;
    };
    faults.fail_nth(2, 2);
    EXPECT_EQ(pattern_of("kmalloc"), ".x.x.");
    EXPECT_EQ(faults.failed_call(), "kmalloc");
    faults.fail_nth(2, 2);
    faults.fail_calls("add_timing", 3);
    EXPECT_EQ(pattern_of("kmalloc"), ".....");
    EXPECT_EQ(pattern_of("add_timing"), "xxx..");
    faults.fail_nth(1);
    EXPECT_EQ(pattern_of("add_timing"), "x....");
    faults.disarm();
    EXPECT_EQ(pattern_of("add_timing"), ".....");
    EXPECT_EQ(faults.failures(), 0u);
}

TEST(log, keeps_texts_as_printed_and_shows_lines_as_a_reader_does)
{
    one_machine world({.start_tick = 12'345});
    std::vector<std::string> texts;
    const int handle = world.host.log.follow([&](const kernel::log_line& line) { texts.push_back(line.text); });
    world.run([] {
        printk("<6>INFO : one\n");
        printk("tw%co %d", 0, 2);
        printk(", continued <3>here\n\n");
        printk("<1>%s\n", std::string(3000, 'x').c_str()); // is cut, but keeps its line end
        printk("!\n");
    });
    world.host.log.unfollow(handle);
    const std::vector<kernel::log_line> lines = world.host.log.lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(kernel::format_line(lines[0]), "[   12.345] INFO : one");
    EXPECT_EQ(lines[0].raw(), "<6>INFO : one\n");
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_EQ(lines[1].text, "two 2, continued <3>here");
    EXPECT_EQ(lines[1].priority, kernel::log_default_priority);
    EXPECT_EQ(lines[2].text, "");
    EXPECT_EQ(lines[3].text, std::string(2043, 'x')) << "the text, its priority and its line end are 2047 bytes";
    EXPECT_EQ(lines[4].text, "!");
    ASSERT_EQ(texts.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(texts[i], lines[i].text);
}

std::string formatted(const char* format, ...)
{
    char text[128];
    va_list arguments;
    va_start(arguments, format);
    const size_t length = kernel::format_text(text, sizeof text, format, arguments,
                                              [](const void* pointer) { return reinterpret_cast<uint64_t>(pointer); });
    va_end(arguments);
    return length < sizeof text ? text : std::to_string(length) + " bytes: " + text;
}

TEST(log, formats_as_a_kernel_does)
{
    void* const pointer = reinterpret_cast<void*>(0xffff8800000000c0);
    const long long large = 0xFEDCBA9876543210;
    const struct {
        std::string text, expected;
    } table[] = {
        {formatted("0x%p|%p|%4p", pointer, nullptr, nullptr), "0xffff8800000000c0|0000000000000000|   0"},
        {formatted("%#.8x|%#x|%#X|%#o|%#.16Lx", 0, 0, 255, 8, large), "0x00000000|0x0|0XFF|010|0xfedcba9876543210"},
        {formatted("%5d|%-5i|%+d|% d|%05d|%.3d|%06.2d", -7, -7, 7, 7, -7, 7, 7), "   -7|-7   |+7| 7|-0007|007|000007"},
        {formatted("%*d|%*d|%.*d|%.0d", 4, 1, -4, 1, 3, 1, 0), "   1|1   |001|0"},
        {formatted("%hd|%hhd|%hu|%hhx", 0x18000, 0x180, 0x18000, 0x1ff), "-32768|-128|32768|ff"},
        {formatted("%d|%u|%ld|%lu|%zu", INT_MIN, 0xFFFFFFFFU, LONG_MIN, ULONG_MAX, SIZE_MAX),
         "-2147483648|4294967295|-9223372036854775808|18446744073709551615|18446744073709551615"},
        {formatted("%lld|%llX|%08x|%-8x|", large, large, 0xabcU, 0xabcU),
         "-81985529216486896|FEDCBA9876543210|00000abc|abc     |"},
        {formatted("%s|%4s|%-4s|%.2s|%s", "text", "ab", "ab", "text", nullptr), "text|  ab|ab  |te|<NULL>"},
        {formatted("%c|%3c|100%%|%5y|%", 'a', 'b'), "a|  b|100%|%5y|%"},
        {formatted("%s", std::string(200, 'x').c_str()), "200 bytes: " + std::string(127, 'x')},
    };
    for (const auto& [text, expected] : table) EXPECT_EQ(text, expected);
}

TEST(log, shows_pointers_as_addresses_that_are_the_same_in_every_run)
{
    one_machine world;
    world.run([] {
        char* first = static_cast<char*>(kmalloc(64, GFP_KERNEL));
        char* second = static_cast<char*>(kmalloc(64, GFP_KERNEL));
        printk("%p %p\n", static_cast<void*>(first), static_cast<void*>(second + 5));
        kfree(first);
        void* third = kmalloc(64, GFP_KERNEL); // usually has the address of the first one
        printk("%p\n", third);
        kfree(third);
        kfree(second);
        int one = 0, other = 0;
        printk("%p %p %p\n", static_cast<void*>(&one), static_cast<void*>(&other), static_cast<void*>(&one));
        printk("%p %p\n", nullptr, reinterpret_cast<void*>(0x98));
    });
    EXPECT_EQ(world.host.log.raw(), "ffff880000000000 ffff880000000085\n"
                                    "ffff880000000100\n"
                                    "ffff8f0000000000 ffff8f0000001000 ffff8f0000000000\n"
                                    "0000000000000000 0000000000000098\n");
    char image[100], later[100];
    world.host.addresses.add_image({{image, sizeof image, 0}});
    world.host.addresses.add_image({{later, sizeof later, 0}});
    EXPECT_EQ(world.host.addresses.nominal(image + 99), kernel::nominal_images + 99);
    EXPECT_EQ(world.host.addresses.nominal(later), kernel::nominal_images + kernel::image_room);
    world.host.addresses.remove_image({{image, sizeof image, 0}});
    EXPECT_EQ(world.host.addresses.nominal(image), kernel::nominal_unknown + 8192);
}

// Returns the texts of at most `limit` lines from number `first` on, and the number of dropped lines. For example:
// "2 dropped;line 3;". Then sets `first` to the number of the next line.
std::string texts_from(const kernel::log& log, uint64_t* first, size_t limit)
{
    uint64_t drop_count = 0;
    std::string all;
    for (const kernel::log_line& line : log.lines_from(*first, limit, first, &drop_count)) all += line.text + ";";
    return drop_count > 0 ? std::to_string(drop_count) + " dropped;" + all : all;
}

TEST(log, drops_the_oldest_lines_and_does_not_number_the_others_again)
{
    kernel::log small(2 * sizeof(kernel::log_line));
    uint64_t next = 0;
    for (int i = 0; i < 4; ++i) small.append(1, "line " + std::to_string(i) + "\n");
    EXPECT_EQ(texts_from(small, &next, 1), "2 dropped;line 2;");
    EXPECT_EQ(texts_from(small, &next, 10), "line 3;");
    small.append(2, "open");
    EXPECT_EQ(texts_from(small, &next, 10), "") << "the last line is not finished";
    small.append(2, "ed\n");
    EXPECT_EQ(texts_from(small, &next, 10), "opened;");
    EXPECT_EQ(next, 5u);
}

TEST(log, is_bounded_in_bytes_even_without_line_ends_and_its_times_never_go_back)
{
    constexpr size_t longest = kernel::log::longest_line;
    kernel::log log(4 * longest);
    log.append(7, "<3>" + std::string(2 * longest, 'x'));
    log.append(5, "y\n<6>\n");
    EXPECT_EQ(log.raw(), "<3>" + std::string(2 * longest, 'x') + "y\n<6>\n");
    std::vector<size_t> sizes;
    for (const kernel::log_line& line : log.lines()) {
        sizes.push_back(line.text.size());
        EXPECT_EQ(line.tick, 7u);
        EXPECT_EQ(line.priority, line.text.empty() ? 6 : 3);
    }
    EXPECT_THAT(sizes, testing::ElementsAre(longest, longest, 1, 0));
    for (int i = 0; i < 1000; ++i) log.append(8, std::string(1000, 'x'));
    EXPECT_LE(log.raw().size(), 4 * longest);
    EXPECT_GE(log.raw().size(), 2 * longest);
}

} // namespace
