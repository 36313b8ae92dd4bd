#include "campaign/figures.h"

namespace campaign
{

const std::array<summed_figure, 8> summed_figures = {{{"seeds", &figures::seeds},
                                                      {"simulated_ticks", &figures::simulated_ticks},
                                                      {"acts", &figures::acts},
                                                      {"faults", &figures::faults},
                                                      {"questions", &figures::questions},
                                                      {"answers", &figures::answers},
                                                      {"truths", &figures::truths},
                                                      {"datagrams", &figures::datagrams}}};

void add(figures& sum, const figures& counts)
{
    static_assert(sizeof(figures) == sizeof(uint64_t) * (std::size(summed_figures) + act_kind_count + 1),
                  "every figure but the digest is summed");
    for (const summed_figure& each : summed_figures) sum.*each.member += counts.*each.member;
    for (size_t kind = 0; kind < act_kind_count; ++kind) sum.marks[kind] += counts.marks[kind];
    sum.digest ^= counts.digest;
}

} // namespace campaign
