// What most fuzzers need: a simulated fabric with one host that runs the service, registered, and a stranger's HCA.
// An exception or a hard error ends the process, which is what a fuzzer looks for.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include "host/stack/gsi-service.h"
#include "host/world/host.h"
#include "host/world/module-folder.h"

namespace fuzz
{

inline void require(bool holds, const char* what)
{
    if (holds) return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

struct one_host {
    one_host()
    {
        require(static_cast<bool>(host.load()), "the host does not start");
        for (int port : {1, 2}) (void)net.link_up("node1", "mthca0", port);
        (void)net.link_up("stranger", "mthca0", 1);
        sim->settle();
    }

    kernel::machine& machine() { return host.machine(); }

    // Whatever came in: nothing is held but what a host holds that is idle.
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
                                .trace_level = 5,
                                .modules = world::usual_modules("node1", "10.0.0.1")};
    world::host host{*sim, world::add_hcas(net, plan).value(), plan, world::default_module_folder(), 1};
    fabric::hca& stranger = *net.add_hca("stranger", "mthca0", 1).value();
};

} // namespace fuzz
