// The /proc tree of a machine: its entries, and calls of their read and write handlers.
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/errno.h"
#include "kernel/proc.h"
#include "tests/kernel/one-machine.h"

using testing::ElementsAre;
using testing::FieldsAre;

namespace
{

std::string long_text()
{
    std::string text;
    for (int i = 0; text.size() < 3 * PROC_PAGE_SIZE; ++i) text += std::to_string(i) + "\n";
    return text;
}

// The behaviour of the read handler read_text(), and its calls.
struct handler_plan {
    std::string text;                           // what it returns
    std::vector<std::pair<off_t, int>> calls{}; // offset and count of each call
    int error = 0;                              // if not 0, it returns this number and no text
    bool signals_end = true;                    // it sets *eof at the end of the text
    int excess_bytes = 0;                       // bytes that it returns beyond the requested count
    ptrdiff_t start = 0;                        // offset of *start in the page
};

// A read handler. Its answer is the text from the offset `off` on, at most `count` + `excess_bytes` bytes. It returns
// the length of the answer, and writes as much of the answer as fits into the page. If `plan.start` is not 0, it writes
// nothing, but sets `*start` and returns the same length.
int read_text(char* page, char** start, off_t off, int count, int* eof, void* data)
{
    auto& plan = *static_cast<handler_plan*>(data);
    plan.calls.emplace_back(off, count);
    if (plan.error != 0) return plan.error;
    const std::string rest = static_cast<size_t>(off) < plan.text.size() ? plan.text.substr(off) : "";
    const int length = std::min(count + plan.excess_bytes, static_cast<int>(rest.size()));
    *start = page + plan.start;
    if (plan.start == 0) std::memcpy(page, rest.data(), std::min(static_cast<size_t>(length), PROC_PAGE_SIZE));
    *eof = plan.signals_end && length == static_cast<int>(rest.size());
    return length;
}

struct proc : testing::Test, one_machine {
    void add(handler_plan& plan)
    {
        proc_dir_entry* entry = create_proc_entry("report", 0);
        ASSERT_NE(entry, nullptr);
        entry->data = &plan;
        entry->read_proc = read_text;
    }
};

TEST_F(proc, a_long_answer_is_read_page_by_page_from_any_offset)
{
    handler_plan plan{.text = long_text()};
    const int size = static_cast<int>(plan.text.size());
    run([&] {
        add(plan);
        for (const bool signals_end : {true, false}) {
            plan.signals_end = signals_end;
            std::string whole;
            EXPECT_EQ(host.proc.read("report", 0, 100'000, &whole), size);
            EXPECT_EQ(whole, plan.text);
        }
        plan.calls.clear();
        std::string part;
        EXPECT_EQ(host.proc.read("report", 1000, 5000, &part), 5000);
        EXPECT_EQ(part, plan.text.substr(1000, 5000));
        EXPECT_THAT(plan.calls, ElementsAre(FieldsAre(1000, 4096), FieldsAre(5096, 904)));
        EXPECT_EQ(host.log.raw(), "") << "each answer fits into its page";

        std::string beyond;
        EXPECT_EQ(host.proc.read("report", 100'000, 10, &beyond), 0);
        plan.error = -EK_NXIO;
        EXPECT_EQ(host.proc.read("report", 0, 10, &beyond), -EK_NXIO);
        EXPECT_EQ(beyond, "");
    });
}

TEST_F(proc, a_handler_cannot_exceed_its_page)
{
    handler_plan plan{.text = long_text(), .excess_bytes = 5};
    std::string text;
    run([&] {
        add(plan);
        EXPECT_EQ(host.proc.read("report", 0, 5000, &text), 5000);
    });
    EXPECT_EQ(text, plan.text.substr(0, 5000));
    EXPECT_EQ(host.log.raw(),
              "<4>/proc/report: its read handler answers with 4101 bytes where there is room for 4096; "
              "the rest is cut off\n<4>/proc/report: its read handler answers with 909 bytes where there "
              "is room for 904; the rest is cut off\n");
    plan = {.text = "text", .start = PROC_PAGE_SIZE - 3};
    run([&] { EXPECT_EQ(host.proc.read("report", 0, 3, &(text = "")), 3) << "there is room for three"; });
    for (const ptrdiff_t outside : {ptrdiff_t{-1}, static_cast<ptrdiff_t>(PROC_PAGE_SIZE) + 1}) {
        plan.start = outside;
        EXPECT_DEATH(run([&] { host.proc.read("report", 0, 3, &(text = "")); }),
                     "the read handler of /proc/report answers from outside of its page");
        run([&] { EXPECT_EQ(host.proc.read("report", 4, 3, &(text = "")), 0) << "no bytes, so their place is free"; });
    }
}

TEST_F(proc, an_entry_needs_its_directory_and_a_free_name)
{
    handler_plan plan{.text = "x"};
    run([&] {
        EXPECT_EQ(create_proc_entry("dorvex/ats/control", 0644), nullptr);
        EXPECT_EQ(proc_mkdir("dorvex/ats"), nullptr);
        EXPECT_NE(proc_mkdir("dorvex"), nullptr);
        EXPECT_EQ(proc_mkdir("dorvex"), nullptr);
        EXPECT_NE(proc_mkdir("dorvex/ats"), nullptr);
        EXPECT_NE(create_proc_entry("dorvex/ats/control", 0644), nullptr);
        EXPECT_NE(create_proc_entry("dorvex/ats/version", 0), nullptr);
        EXPECT_EQ(create_proc_entry("dorvex/ats/control", 0644), nullptr);
        EXPECT_EQ(create_proc_entry("dorvex/ats/control/below", 0644), nullptr);

        std::vector<kernel::proc_listing> entries;
        EXPECT_EQ(host.proc.list("dorvex/ats", &entries), 0);
        EXPECT_THAT(entries, ElementsAre(FieldsAre("control", false, 0644u), FieldsAre("version", false, 0444u)));
        EXPECT_EQ(host.proc.list("dorvex/ats/control", &entries), -EK_INVAL);

        std::string text;
        EXPECT_EQ(host.proc.read("dorvex/ats", 0, 10, &text), -EK_INVAL);
        EXPECT_EQ(host.proc.read("dorvex/ats/control", 0, 10, &text), -EK_INVAL) << "it has no handler";
        EXPECT_EQ(host.proc.write("dorvex/ats/none", "x"), -EK_NOENT);

        remove_proc_entry("dorvex/ats/none");
        remove_proc_entry("dorvex/ats/control");
        EXPECT_EQ(host.proc.write("dorvex/ats/control", "x"), -EK_NOENT);
    });
    EXPECT_DEATH(run([] { remove_proc_entry("dorvex"); }), "remove_proc_entry: dorvex is not empty");
}

TEST_F(proc, writes_come_one_at_a_time_and_removal_waits_for_them)
{
    run([&] {
        for (const char* name : {"slow", "other"})
            create_proc_entry(name, 0644)->write_proc = [](struct file*, const char*, unsigned long count, void*) {
                schedule_timeout_uninterruptible(count);
                return static_cast<int>(count);
            };
    });
    for (const size_t ticks : {20, 30})
        at(0, "writer", [&, ticks] { EXPECT_EQ(host.proc.write("slow", std::string(ticks, 'x')), int(ticks)); });
    exec::task& impatient = at(3, "impatient writer", [&] {
        EXPECT_EQ(host.proc.write("slow", "x"), -EK_RESTARTSYS);
        EXPECT_EQ(get_jiffies(), 4u);
    });
    at(4, "signal", [&] { exec::send_signal(impatient); });
    at(5, "remover", [&] {
        remove_proc_entry("slow");
        EXPECT_EQ(get_jiffies(), 20u + 30u);
    });
    at(6, "latecomer", [&] { EXPECT_EQ(host.proc.write("slow", "x"), -EK_NOENT); });
    at(7, "only writer", [&] { EXPECT_EQ(host.proc.write("other", std::string(10, 'x')), 10); });
    at(8, "remover of the other", [&] {
        remove_proc_entry("other");
        EXPECT_EQ(get_jiffies(), 7u + 10u);
    });
}

} // namespace
