// Counts how often runs take each edge of the module's control flow. The compiler inserts the calls for this into a
// module that is built with the preset `edges`. Runs are processes of their own, so the counters are in shared memory.
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
    // From now on the edges of this process and of its later children are counted. There is one object at a time.
    // Throws std::system_error if there is no memory.
    edge_counters();
    ~edge_counters();
    edge_counters(const edge_counters&) = delete;
    edge_counters& operator=(const edge_counters&) = delete;

    // Sets all counters to zero. No run may be active.
    void clear();

    // The number of edges in the module. 0 if no run has loaded a module that counts them.
    size_t all_edges() const;

    // The taken edges, each with the number of binary digits of its count: an edge that is taken ten times more often
    // is another element.
    std::set<uint32_t> taken() const;

    // The edge of an element.
    static uint32_t edge_of(uint32_t element) { return element / digits; }

  private:
    static constexpr uint32_t digits = 64;
};

} // namespace campaign
