// Parts of a machine: its memory, its random numbers, its modules' thread variables, its fault injector and its log.
#include <algorithm>
#include <climits>
#include <cstdarg>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

#include "host/exec/print-capture.h"
#include "host/exec/sanitizers.h"
#include "host/kernel/format.h"
#include "host/kernel/module-image.h"
#include "host/kernel/thread-variables.h"
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

// The account uses freed blocks again for new blocks of about the same size, and finds blocks by their address.
TEST(memory, keeps_every_byte_of_blocks_of_all_sizes)
{
    kernel::memory_account memory;
    struct block {
        size_t size;
        char* bytes;
        char fill;
        uint64_t nominal;
    };
    std::vector<block> blocks;
    size_t bytes = 0;
    for (int round = 0; round < 4; ++round) {
        for (size_t size = static_cast<size_t>(round); size < 1200; size += 7) {
            auto* const begin = static_cast<char*>(memory.allocate(size, &memory));
            ASSERT_NE(begin, nullptr);
            const char fill = static_cast<char>(blocks.size());
            std::fill_n(begin, size, fill);
            blocks.push_back({size, begin, fill, memory.nominal(begin).value()});
            bytes += size;
        }
        EXPECT_EQ(memory.blocks(), blocks.size());
        EXPECT_EQ(memory.bytes(), bytes);
        const std::vector<std::string> leaks = memory.leaks();
        ASSERT_EQ(leaks.size(), blocks.size());
        for (size_t i = 0; i < blocks.size(); ++i) {
            const auto& [size, begin, fill, nominal] = blocks[i];
            EXPECT_EQ(static_cast<size_t>(std::count(begin, begin + size, fill)), size);
            EXPECT_EQ(memory.nominal(begin + size / 2), nominal + size / 2);
            EXPECT_TRUE(size == 0 || memory.nominal(begin + size - 1) == nominal + size - 1);
            EXPECT_GE(nominal, i == 0 ? kernel::nominal_allocations : blocks[i - 1].nominal + blocks[i - 1].size);
            EXPECT_TRUE(leaks[i].starts_with(std::to_string(size) + " bytes")) << "the oldest first";
        }
        for (size_t i = blocks.size(); i > 0; i -= std::min<size_t>(i, 2)) {
            EXPECT_TRUE(memory.release(blocks[i - 1].bytes));
            EXPECT_FALSE(memory.release(blocks[i - 1].bytes));
            bytes -= blocks[i - 1].size;
            blocks.erase(blocks.begin() + static_cast<ptrdiff_t>(i - 1));
        }
    }
    EXPECT_EQ(memory.nominal(&memory), std::nullopt);
    EXPECT_EQ(memory.allocate(SIZE_MAX, &memory), nullptr);
    EXPECT_EQ(memory.allocate(size_t{PTRDIFF_MAX} + 1, &memory), nullptr);
#ifndef __SANITIZE_ADDRESS__
    void* const freed[] = {memory.allocate(65, &memory), memory.allocate(128, &memory)};
    for (const void* each : freed) EXPECT_TRUE(memory.release(each));
    EXPECT_NE(memory.allocate(129, &memory), freed[1]);
    EXPECT_EQ(memory.allocate(100, &memory), freed[1]) << "the one that was freed last";
    EXPECT_EQ(memory.allocate(128, &memory), freed[0]);
#endif
    kernel::memory_account empty;
    EXPECT_FALSE(empty.release(&memory));
    EXPECT_EQ(empty.nominal(&memory), std::nullopt);
}

TEST(random_source, fills_exactly_the_given_bytes_and_repeats_them_for_a_seed)
{
    const auto bytes_of = [](uint64_t seed) {
        kernel::random_source source(seed);
        std::string bytes(40, '\0');
        source.fill(bytes.data() + 1, 0);
        source.fill(bytes.data() + 1, 38);
        EXPECT_EQ(bytes.front(), '\0');
        EXPECT_EQ(bytes.back(), '\0');
        EXPECT_LT(std::ranges::count(bytes, '\0'), 20);
        return bytes;
    };
    EXPECT_EQ(bytes_of(1), bytes_of(1));
    EXPECT_NE(bytes_of(1), bytes_of(2));
    EXPECT_NE(bytes_of(0), bytes_of(0)) << "from the system";
}

TEST(thread_variables, of_each_thread_and_each_image_are_their_own)
{
    const kernel::thread_variables_layout layout{.first_values = "first", .bytes = 64};
    auto image = std::make_unique<kernel::thread_variables>(layout);
    kernel::thread_variables other(layout);
    const auto is_new = [](const char* bytes) {
        return std::string_view(bytes, 5) == "first" && std::count(bytes + 5, bytes + 64, '\0') == 59;
    };
    char* const own = image->copy_of_this_thread();
    EXPECT_TRUE(is_new(own));
    own[5] = 'x';
    EXPECT_EQ(image->copy_of_this_thread(), own);
    const kernel::thread_variable_index index{image.get(), 5};
    EXPECT_EQ(kernel::address_of_thread_variable(&index), own + 5);
    EXPECT_TRUE(is_new(other.copy_of_this_thread()));
    for (int i = 0; i < 2; ++i)
        std::thread([&] {
            EXPECT_NE(image->copy_of_this_thread(), own);
            EXPECT_TRUE(is_new(image->copy_of_this_thread()));
            image->copy_of_this_thread()[6] = 'y';
        }).join();
    EXPECT_EQ(own[5], 'x');
    other.copy_of_this_thread()[7] = 'z';
    image.reset();
    EXPECT_EQ(other.copy_of_this_thread()[7], 'z');
    image = std::make_unique<kernel::thread_variables>(layout);
    EXPECT_TRUE(is_new(image->copy_of_this_thread()));
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
    faults.fail_some(100, 1);
    EXPECT_EQ(pattern_of("kmalloc"), "xxxxx");
    EXPECT_EQ(faults.calls(), 5u);
    EXPECT_EQ(faults.failures(), 5u);
    faults.fail_some(0, 1);
    EXPECT_EQ(pattern_of("kmalloc"), ".....");
    std::vector<std::string> patterns;
    faults.fail_some(1, 1);
    for (int i = 0; i < 2000; ++i) pattern_of("kmalloc");
    EXPECT_NEAR(static_cast<double>(faults.failures()), 100, 40) << "of 10,000 calls";
    for (const uint64_t seed : {1, 1, 2}) {
        faults.fail_some(20, seed);
        patterns.emplace_back();
        for (int i = 0; i < 200; ++i) patterns.back() += pattern_of("kmalloc");
        EXPECT_NEAR(static_cast<double>(faults.failures()), 200, 40);
    }
    EXPECT_EQ(patterns[0], patterns[1]);
    EXPECT_NE(patterns[0], patterns[2]);
    faults.disarm();
    EXPECT_EQ(pattern_of("add_timing"), ".....");
    EXPECT_EQ(faults.calls(), 0u) << "calls are not counted now";
    EXPECT_EQ(faults.failures(), 0u);
    EXPECT_EQ(faults.failed_call(), "");
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
        printk("<0>0\n<7>7\n<8>8\n<7 7\n< >\n<7>");
        printk("\n%s\n", std::string(2045, 'y').c_str()); // the longest text that is not cut
        printk("%s!\n", std::string(2046, 'z').c_str());  // one byte more
    });
    world.host.log.unfollow(handle);
    world.run([] { printk("nobody follows\n"); });
    std::vector<kernel::log_line> lines = world.host.log.lines();
    ASSERT_EQ(lines.size(), 14u);
    EXPECT_EQ(lines.back().text, "nobody follows");
    lines.pop_back();
    EXPECT_EQ(kernel::format_line(lines[0]), "[   12.345] INFO : one");
    EXPECT_EQ(lines[0].raw(), "<6>INFO : one\n");
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_EQ(lines[1].text, "two 2, continued <3>here");
    EXPECT_EQ(lines[1].priority, kernel::log_default_priority);
    EXPECT_EQ(lines[2].text, "");
    EXPECT_EQ(lines[3].text, std::string(2043, 'x')) << "the text, its priority and its line end are 2047 bytes";
    EXPECT_EQ(lines[4].text, "!");
    const std::pair<int, const char*> marks[] = {{0, "0"}, {7, "7"}, {4, "<8>8"}, {4, "<7 7"}, {4, "< >"}, {7, ""}};
    for (size_t i = 0; i < std::size(marks); ++i) {
        EXPECT_EQ(lines[5 + i].priority, marks[i].first);
        EXPECT_EQ(lines[5 + i].text, marks[i].second);
    }
    EXPECT_EQ(lines[11].raw(), std::string(2045, 'y') + "\n");
    EXPECT_EQ(lines[12].raw(), std::string(2046, 'z') + "\n");
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

TEST(log, lacks_only_the_texts_that_a_capture_keeps_for_itself)
{
    one_machine world;
    world.run([] {
        exec::print_capture outer(exec::print_capture::also_log);
        printk("<6>one\n");
        {
            exec::print_capture inner(exec::print_capture::instead_of_log);
            printk("<6>two\n");
            EXPECT_EQ(inner.text(), "two\n");
        }
        printk("<6>three\n");
        EXPECT_EQ(outer.text(), "one\nthree\n");
    });
    EXPECT_EQ(world.host.log.raw(), "<6>one\n<6>three\n");
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
        {formatted("%#6x|%-#6x|%-5d|%9d|%-+4d|", 255, 255, 7, 7, 7), "  0xff|0xff  |7    |        7|+7  |"},
        {formatted("%s|%4s|%-4s|%.2s|%.0s|%s", "text", "ab", "ab", "text", "x", nullptr), "text|  ab|ab  |te||<NULL>"},
        {formatted("%c|%3c|100%%|%5y|%", 'a', 'b'), "a|  b|100%|%5y|%"},
        {formatted("%s", std::string(200, 'x').c_str()), "200 bytes: " + std::string(127, 'x')},
        {formatted("%100s%s", "", std::string(200, 'x').c_str()),
         "300 bytes: " + std::string(100, ' ') + std::string(27, 'x')},
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
        void* third = kmalloc(64, GFP_KERNEL); // usually has the address of `first`
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
    char image[100], later[100], last[100];
    world.host.addresses.add_image({{image, sizeof image, 0}});
    world.host.addresses.add_image({{later, sizeof later, 0}});
    EXPECT_EQ(world.host.addresses.nominal(image + 99), kernel::nominal_images + 99);
    EXPECT_EQ(world.host.addresses.nominal(later), kernel::nominal_images + kernel::image_room);
    world.host.addresses.remove_image({{image, sizeof image, 0}});
    EXPECT_EQ(world.host.addresses.nominal(image), kernel::nominal_unknown + 8192);
    world.host.addresses.add_image({{last, sizeof last, 0}});
    EXPECT_EQ(world.host.addresses.nominal(last), kernel::nominal_images + 2 * kernel::image_room);
    world.host.addresses.remove_image({{last, sizeof last, 0}});
    world.host.addresses.remove_image({{later, sizeof later, 0}});
    world.host.addresses.add_image({{image, sizeof image, kernel::image_room - sizeof image}, {later, 1, 7}});
    EXPECT_EQ(world.host.addresses.nominal(image), kernel::nominal_images + kernel::image_room - 100) << "begins anew";
    EXPECT_EQ(world.host.addresses.nominal(later), kernel::nominal_images + 7);
    EXPECT_NE(world.host.addresses.nominal(later + 1), kernel::nominal_images + 8);
    char object[3];
    for (const size_t bytes : {1, 4096, 4097}) {
        world.host.addresses.add_object(object, bytes);
        world.host.addresses.add_object(object + 1, 1);
        EXPECT_EQ(world.host.addresses.nominal(object + 1) - world.host.addresses.nominal(object),
                  bytes <= 4096 ? 4096u : 8192u);
        for (const char* each : {object, object + 1}) world.host.addresses.remove(each);
    }
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
    small.append(3, "never finished");
    small.clear();
    EXPECT_EQ(small.raw(), "");
    small.append(3, "line 6\n");
    EXPECT_EQ(texts_from(small, &next, 10), "1 dropped;line 6;");
    EXPECT_EQ(next, 7u);
    EXPECT_EQ(texts_from(small, &next, 10), "");
    kernel::log smallest(1);
    smallest.append(1, "one\ntwo\n");
    EXPECT_EQ(smallest.raw(), "two\n") << "the last line stays";
    EXPECT_EQ(kernel::format_dropped(1), "1 line was dropped");
    EXPECT_EQ(kernel::format_dropped(2), "2 lines were dropped");
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
