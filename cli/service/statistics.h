// Counters of a service's clients and of its hosts' logs, for metrics. Each counter is atomic on its own, so any thread
// may use it. A reader of two counters may see them at slightly different moments. All counters only grow, except
// door_statistics::open.
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

// The source and the status of a lookup's answer. lookup_outcome_words has their names in metrics, in the same order.
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

// Counts lookups by their duration. counts[i] counts lookups that took at most bounds_ns[i], but longer than the bound
// before.
class latency_histogram
{
  public:
    static constexpr std::array<uint64_t, 10> bounds_ns = {
        1'000, 10'000, 100'000, 250'000, 500'000, 1'000'000, 10'000'000, 100'000'000, 1'000'000'000, 10'000'000'000};

    void note(uint64_t nanoseconds);

    std::array<counter, bounds_ns.size() + 1> counts{}; // the last element counts times above the highest bound
    counter sum_ns{0};
};

struct lookup_statistics {
    // Counts a lookup with this answer. `cache_only` means that only the cache was asked. Any thread.
    void note(lookup_kind kind, const world::resolution& answer, bool cache_only = false);
    void note(const world::path_resolution& answer);

    std::array<std::array<counter, lookup_outcome_words.size()>, lookup_kind_words.size()> counts{};
    latency_histogram from_cache, from_sa;

  private:
    void note(lookup_kind kind, lookup_outcome outcome, uint64_t nanoseconds);
};

struct host_statistics {
    // Counts all later lines of the log. `log` must be destroyed before this object.
    void follow(kernel::log& log);

    lookup_statistics lookups;
    std::array<counter, console::trace_level_everything + 1> log_lines{}; // by trace level
};

// The counters of a door, which is a socket of the service with its connections. See service_statistics.
struct door_statistics {
    std::atomic<int64_t> open{0}; // connections that are open now
    counter accepted{0};          // connections
    counter denied{0};            // requests that the access rules refused

    // How often the limit with this name in service_limits was exceeded: connections, requests (orders and followed
    // logs count as well as questions), lines, and closed connections with unread bytes.
    counter connections_reached{0};
    counter questions_reached{0};
    counter line_bytes_reached{0};
    counter unread_bytes_reached{0};
};

// `clients` is the socket for `ats` and libatsclient. `librdmacm` is the socket for programs that use librdmacm.
struct service_statistics {
    door_statistics clients, librdmacm;
};

} // namespace cli
