// A world for fuzzers: a simulated fabric with one registered host, node1, and an HCA without a host, `stranger`.
// An exception or a hard error ends the process. libFuzzer then reports the input.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include "console/host-plans.h"
#include "host/stack/gsi-service.h"
#include "host/world/host.h"
#include "host/world/module-folder.h"

namespace fuzz
{

// If `holds` is false, prints `fault` and ends the process.
inline void require(bool holds, const char* fault)
{
    if (holds) return;
    std::fprintf(stderr, "%s\n", fault);
    std::abort();
}

struct one_host {
    one_host()
    {
        require(host.load().has_value(), "the host does not start");
        const bool are_links_up = net.link_up("node1", "mthca0", 1) && net.link_up("node1", "mthca0", 2) &&
                                  net.link_up("stranger", "mthca0", 1);
        require(are_links_up, "a link does not come up");
        sim->settle();
    }

    kernel::machine& machine() { return host.machine(); }

    // Call check() after each input. It completes all work that is due now. All datagrams must then be back in their
    // pools.
    void check()
    {
        sim->settle();
        for (const stack::gsi_pool_view& pool : machine().get<stack::gsi>().pools())
            require(pool.free == pool.size, "a datagram is not back in its pool");
        machine().log.clear();
    }

    std::unique_ptr<exec::simulation> sim = exec::make_simulation();
    embedded::subnet net{*sim, {.service_record_limit = 64}};
    const world::host_plan plan{.name = "node1",
                                .hcas = {{"mthca0", 2}},
                                .registry = {console::trace_setting(ZR_FUNC)},
                                .modules = console::usual_modules("node1", "10.0.0.1")};
    world::host host{*sim, world::add_hcas(net, plan).value(), plan, world::default_module_folder(), 1};
    fabric::hca& stranger = *net.add_hca("stranger", "mthca0", 1).value();
};

} // namespace fuzz
