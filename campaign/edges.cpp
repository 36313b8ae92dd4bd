#include "campaign/edges.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <sys/mman.h>
#include <system_error>

namespace
{

constexpr uint32_t most_edges = 1 << 16;

struct shared_counters {
    uint32_t edges; // number of edges in the module
    uint64_t counts[most_edges];
};
shared_counters* counters = nullptr; // of the only edge_counters object; null if edges are not counted

} // namespace

#ifdef ATS_EDGES
// The code that the compiler inserts calls this function when an image is loaded. The function numbers the edges. An
// edge has the same number in all images of the module.
extern "C" __attribute__((visibility("default"))) void __sanitizer_cov_trace_pc_guard_init(uint32_t* begin,
                                                                                           uint32_t* end)
{
    if (begin == end || *begin != 0 || end - begin >= most_edges) return;
    for (uint32_t* guard = begin; guard != end; ++guard) *guard = static_cast<uint32_t>(guard - begin + 1);
    if (counters) counters->edges = static_cast<uint32_t>(end - begin);
}

// The code that the compiler inserts calls this function at each edge. The tasks of a run take turns, so a plain
// increment is enough.
extern "C" __attribute__((visibility("default"))) void __sanitizer_cov_trace_pc_guard(uint32_t* guard)
{
    if (counters) ++counters->counts[*guard];
}
#endif

namespace campaign
{

edge_counters::edge_counters()
{
    void* const memory = mmap(nullptr, sizeof *counters, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "memory for the edges");
    counters = static_cast<shared_counters*>(memory);
}

edge_counters::~edge_counters()
{
    munmap(counters, sizeof *counters);
    counters = nullptr;
}

void edge_counters::clear()
{
    std::ranges::fill(counters->counts, 0);
}

size_t edge_counters::all_edges() const
{
    return counters->edges;
}

std::set<uint32_t> edge_counters::elements() const
{
    std::set<uint32_t> elements;
    for (uint32_t edge = 1; edge <= counters->edges; ++edge)
        if (const uint64_t count = counters->counts[edge]; count > 0)
            elements.insert(edge * digits + static_cast<uint32_t>(std::bit_width(count)));
    return elements;
}

} // namespace campaign
