// A host: a machine with its HCAs, its registry values and its modules. It can run any modules; the plan names them.
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
    // Plugs the HCAs, starts the tasks of the stack and fills the registry. `hcas` can belong to any fabric and must
    // outlive the host; the plan's own list of HCAs is not used. Modules come from `module_folder`. Throws a shortage
    // if the tasks cannot be created.
    host(exec::executor& exec, const std::vector<fabric::hca*>& hcas, const host_plan& plan, std::string module_folder,
         uint64_t random_seed);

    // Unloads all modules. If a module refuses, prints the error on stderr.
    ~host();

    kernel::machine& machine() { return *machine_; }
    const std::string& name() const { return plan_.name; }
    const host_plan& plan() const { return plan_; }

    // Loads the planned modules in order and stops at the first error. The modules loaded before it stay loaded. The
    // caller is outside, or a task that may sleep. Throws a shortage if an image cannot be mapped.
    ats::result<> load();

    // Unloads every loaded module, the latest first. Stops at the first one that refuses.
    ats::result<> unload();

  private:
    host_plan plan_;
    std::string module_folder_;
    std::unique_ptr<kernel::machine> machine_;
};

} // namespace world
