// Trace levels. A trace line is printed only if both the logger's level and the module's own level allow it. Both
// levels can change at any time.
#include <malloc.h>
#include <set>

#include "host/stack/logger.h"
#include "repository.h"
#include "tests/ats/ats-world.h"

namespace
{

// Causes events that print lines of all levels, some of them because a call fails. Returns the levels of the lines that
// were printed.
std::set<std::string> levels_of_an_event(ats_world& w, ats_host& host)
{
    host.log();
    host.faults().fail_calls("kq_port_query", 1);
    host.link_up(2);
    host.faults().disarm();
    fabric::mad_bytes odd = sa_reply({}, "10.0.0.9");
    odd[0] = 2;
    w.inject(host, 1, odd);
    host.link_down(2);
    std::set<std::string> levels;
    for (const std::string& line : host.log()) levels.insert(line.substr(0, line.find(' ')));
    levels.erase(""); // from a message with two line ends
    return levels;
}

TEST(trace, both_levels_must_admit_a_line)
{
    ats_world w;
    ats_host& host = w.add({.ports = {2}}).load();
    host.link_up(1);
    const struct {
        int logger, module;
        std::set<std::string> levels;
    } table[] = {
        {5, 0, {}},
        {0, 5, {}},
        {5, 1, {"ERROR"}},
        {1, 5, {"ERROR"}},
        {2, 3, {"ERROR", "WARNING"}},
        {4, 4, {"ERROR", "WARNING", "DEBUG"}},
        {5, 5, {"ERROR", "WARNING", "DEBUG", "FUNC"}},
        {99, 99, {"ERROR", "WARNING", "DEBUG", "FUNC"}},
        {-1, 5, {}},
    };
    for (const auto& [logger, module, levels] : table) {
        SCOPED_TRACE(testing::Message() << "logger " << logger << ", ats " << module);
        host.machine().get<stack::logger>().set_level(logger);
        host.trace(module);
        EXPECT_EQ(levels_of_an_event(w, host), levels);
        EXPECT_EQ(*host.symbol<std::atomic<int32_t>*>("ATS_trace_level"), module);
    }
    EXPECT_NE(*host.symbol<rep_notifier_t*>("ATS_log_rep_h"), 0);
}

TEST(trace, is_off_without_a_registry_value)
{
    const std::string no_key = "ZR_LOGGER: rep_open_key failed for, dorvex/modules/ats/ -- disabling logging";
    const std::string no_value = "ZR_LOGGER: rep_get_value failed for, dorvex/modules/ats/ -- disabling logging";
    const std::string added_key = "LOGGER: Added key dorvex/modules/ats/, trace level 4";
    const struct {
        const char* call;
        std::string line;
        bool traces;
    } table[] = {{"rep_open_key", no_key, false},
                 {"rep_get_value", no_value, false},
                 {"rep_notify_key_change", added_key, true},
                 {"", added_key, true}};
    for (const auto& [call, line, traces] : table) {
        SCOPED_TRACE(call);
        ats_world w;
        ats_host& host = w.add({.trace = trace_debug});
        host.faults().fail_calls(call);
        host.load();
        const std::vector<std::string> lines = host.log();
        EXPECT_EQ(lines[0], line);
        EXPECT_EQ(lines.size() > 1, traces);
        EXPECT_EQ(*host.symbol<rep_notifier_t*>("ATS_log_rep_h") != 0, !*call);
        host.unload();
        EXPECT_EQ(host.leftovers(), "");
    }
    ats_world w;
    ats_host& host = w.add({.has_key = false}).load();
    EXPECT_THAT(host.log(), ElementsAre(no_key));
    host.trace(trace_func);
    host.unload();
    EXPECT_THAT(host.log(), ElementsAre("ATS - module stopped ")) << "tracing stays off until the next load";
}

// The host checks its record once a minute and traces every step. The log has a limit: it must free old lines.
TEST(trace, of_everything_for_a_month_takes_no_more_memory)
{
    ats_world w;
    ats_host& host = w.add({.trace = trace_func, .log_bytes = 1 << 20}).load();
    host.link_up(1);
    uint64_t day = 0;
    const auto heap_bytes_after = [&](uint64_t last_day) {
        constexpr uint64_t day_ticks = 86'400'000;
        for (; day < last_day; ++day) {
            w.at((day + 1) * day_ticks);
            w.requests(); // frees the requests that the test's world has recorded
        }
        return mallinfo2().uordblks;
    };
    const size_t after_three_days = heap_bytes_after(3);
    EXPECT_LT(heap_bytes_after(30), after_three_days + (64 << 10));
    uint64_t next = 0, drop_count = 0;
    host.machine().log.lines_from(0, 1, &next, &drop_count);
    EXPECT_GT(drop_count, 100'000u) << "the log has not reached its limit";
}

} // namespace
