// Counters of a service's clients and its hosts' logs, for metrics. They only grow. Each counter is atomic on its own.
// Two counters may show slightly different moments.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "console/log-filter.h"
#include "host/kernel/log.h"
#include "host/world/path-resolution.h"

namespace cli
{

using counter = std::atomic<uint64_t>;

inline void count(counter& counter, uint64_t more = 1)
{
    counter.fetch_add(more, std::memory_order_relaxed);
}

enum class lookup_kind { address, gid, path };
constexpr std::array lookup_kind_words = {"address", "gid", "path"};

// The result of a lookup: its source and its status.
enum class lookup_outcome { cache_ok, cache_not_found, sa_ok, sa_not_found, not_cached, timed_out, failed };
struct outcome_words {
    const char* source;
    const char* result;
};
constexpr std::array<outcome_words, 7> lookup_outcome_words = {{{"cache", "ok"},
                                                                {"cache", "not_found"},
                                                                {"sa", "ok"},
                                                                {"sa", "not_found"},
                                                                {"none", "not_cached"},
                                                                {"none", "timed_out"},
                                                                {"none", "failed"}}};

// The durations of lookups, by the source of the answer.
class latency_histogram
{
  public:
    static constexpr std::array<uint64_t, 10> bounds_ns = {
        1'000, 10'000, 100'000, 250'000, 500'000, 1'000'000, 10'000'000, 100'000'000, 1'000'000'000, 10'000'000'000};

    void note(uint64_t nanoseconds);

    std::array<counter, bounds_ns.size() + 1> counts{}; // the last one counts longer times
    counter sum_ns{0};
};

struct lookup_statistics {
    // Any thread. `cache_only` means that only the cache was asked.
    void note(lookup_kind kind, const world::resolution& answer, bool cache_only = false);
    void note(const world::path_resolution& answer);

    std::array<std::array<counter, lookup_outcome_words.size()>, lookup_kind_words.size()> counts{};
    latency_histogram from_cache, from_sa;

  private:
    void note(lookup_kind kind, lookup_outcome outcome, uint64_t nanoseconds);
};

struct host_statistics {
    // Counts the lines of this log from now on. The log must be destroyed first.
    void follow(kernel::log& log);

    lookup_statistics lookups;
    std::array<counter, console::trace_level_everything + 1> log_lines{}; // by trace level
};

struct door_statistics {
    std::atomic<int64_t> open{0}; // connections now
    counter accepted{0};
    counter denied{0}; // requests refused by the access rules

    // Connections, questions, lines and answers beyond the limits of a user or a connection.
    counter connections_reached{0};
    counter questions_reached{0};
    counter line_bytes_reached{0};
    counter unread_bytes_reached{0};
};

struct service_statistics {
    door_statistics clients, librdmacm;
};

} // namespace cli
