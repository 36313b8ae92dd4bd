// Counts how often runs take each edge of the module's control flow. In a build with the preset `edges`, the compiler
// inserts a call at each edge of the module. Each run is a separate process, so the counters are in shared memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>

#include "host/result.h"

namespace campaign
{

class edge_counters
{
  public:
    // From now on, counts the edges that this process takes, and those that its forked processes take. Only one object
    // may exist at a time. Throws std::system_error if there is no memory.
    edge_counters();
    ~edge_counters();
    edge_counters(const edge_counters&) = delete;
    edge_counters& operator=(const edge_counters&) = delete;

    // Sets all counters to zero. Call clear() only while no run is active.
    void clear();

    // Returns the number of edges in the module, or 0 if no run has loaded a module that counts edges.
    size_t all_edges() const;

    // Returns one element for each edge that was taken. An element identifies an edge and the number of binary digits
    // of its count. If a run takes an edge about twice as often, the edge therefore has another element.
    std::set<uint32_t> elements() const;

    // Returns the edge of an element.
    static uint32_t edge_of(uint32_t element) { return element / digits; }

  private:
    static constexpr uint32_t digits = 64;
};

} // namespace campaign
