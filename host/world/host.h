// A host: a machine with its HCAs, its registry values and its modules. A plan says which HCAs, values and modules the
// host has. The host can run any modules.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/fabric/embedded/subnet.h"
#include "host/kernel/machine.h"
#include "host/result.h"
#include "host/stack/registry.h"

namespace world
{

struct hca_plan {
    std::string name = "mthca0";
    int ports = 1;
};

// A module to load: its file name in the module folder without ".so", and its parameters in the form for insmod.
struct module_plan {
    std::string name;
    std::string parameters;
};

struct host_plan {
    std::string name = {};
    std::vector<hca_plan> hcas = {hca_plan{}};
    std::vector<stack::registry_value> registry = {}; // stored before the modules are loaded
    size_t log_bytes = kernel::default_log_bytes;
    std::vector<module_plan> modules = {}; // in loading order
};

// Adds the HCAs of the plan to `subnet`, with their links down. Fails for the same reasons as subnet::add_hca.
ats::result<std::vector<fabric::hca*>> add_hcas(embedded::subnet& subnet, const host_plan& plan);

class host
{
  public:
    // Plugs the HCAs, starts the tasks of host/stack and fills the registry. Does not load the modules. `hcas` can
    // belong to any fabric and must outlive the host. `plan.hcas` is not used. load() finds the modules in
    // `module_folder`. Throws exec::shortage if a task cannot be created.
    host(exec::executor& exec, const std::vector<fabric::hca*>& hcas, const host_plan& plan, std::string module_folder,
         uint64_t random_seed);

    // Unloads all modules. If a module cannot be unloaded, prints the error to stderr; ~machine() then ends the
    // process.
    ~host();

    kernel::machine& machine() { return *machine_; }
    const std::string& name() const { return plan_.name; }
    const host_plan& plan() const { return plan_; }

    // Loads the modules of the plan in order. At the first error, returns the error of loader::insmod; the modules that
    // were loaded before stay loaded. The caller is a thread outside of all machines, or a task that may sleep. Throws
    // exec::shortage if a module needs a task that cannot be created.
    ats::result<> load();

    // Unloads all loaded modules, the latest first. At the first error, returns the error of loader::rmmod; the other
    // modules stay loaded. The caller is a thread outside of all machines, or a task that may sleep.
    ats::result<> unload();

  private:
    host_plan plan_;
    std::string module_folder_;
    std::unique_ptr<kernel::machine> machine_;
};

} // namespace world
