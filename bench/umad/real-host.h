// A host on the real ports of this machine, for benchmarks that run a whole host.
#pragma once

#include <memory>
#include <string>

#include "console/host-plans.h"
#include "host/fabric/umad/umad.h"
#include "host/world/host.h"
#include "host/world/module-folder.h"

// Members are destroyed in reverse order: the host ends before the fabric.
struct real_host {
    std::unique_ptr<exec::executor> exec = exec::make_threaded_executor();
    std::unique_ptr<umad::real_fabric> fabric;
    std::unique_ptr<world::host> host;
};

// Starts a host with the usual modules and this address on all HCAs. Returns the error if the ports cannot be opened or
// a module cannot be loaded. Throws exec::shortage if a task cannot be created.
inline ats::result<real_host> start_real_host(const std::string& address)
{
    real_host started;
    auto fabric = umad::open(*started.exec, {});
    if (!fabric) return ats::pass_on(fabric);
    started.fabric = std::move(*fabric);
    started.host =
        std::make_unique<world::host>(*started.exec, started.fabric->hcas(), console::usual_host("bench", address),
                                      world::default_module_folder(), 0);
    if (const ats::result<> load = started.host->load(); !load) return ats::pass_on(load);
    return started;
}
