#include "host/world/host.h"

#include <cstdio>

#include "host/stack/boot.h"

namespace world
{

ats::result<std::vector<fabric::hca*>> add_hcas(embedded::subnet& subnet, const host_plan& plan)
{
    std::vector<fabric::hca*> hcas;
    for (const hca_plan& hca : plan.hcas) {
        const ats::result<fabric::hca*> result = subnet.add_hca(plan.name, hca.name, hca.ports);
        if (!result) return ats::pass_on(result);
        hcas.push_back(*result);
    }
    return hcas;
}

host::host(exec::executor& exec, const std::vector<fabric::hca*>& hcas, const host_plan& plan,
           std::string module_folder, uint64_t random_seed)
    : plan_(plan), module_folder_(std::move(module_folder)),
      machine_(std::make_unique<kernel::machine>(
          exec, plan.name, kernel::machine_options{.random_seed = random_seed, .log_bytes = plan.log_bytes}))
{
    for (fabric::hca* each : hcas) machine_->plug(*each);
    machine_->enter("boot", [this] {
        stack::boot(*machine_);
        auto& registry = machine_->get<stack::registry>();
        for (const stack::registry_value& each : plan_.registry) registry.set(each.key, each.name, each.value);
    });
}

host::~host()
{
    const ats::result<> result = unload();
    if (!result) std::fprintf(stderr, "%s: %s\n", name().c_str(), result.error().text.c_str());
}

ats::result<> host::load()
{
    for (const module_plan& module : plan_.modules) {
        const std::string image = module_folder_ + "/" + module.name + ".so";
        ats::result<> result = machine_->modules.insmod(image, module.parameters);
        if (!result) return result;
    }
    return {};
}

ats::result<> host::unload()
{
    const std::vector<std::string> names = machine_->modules.loaded();
    for (auto module = names.rbegin(); module != names.rend(); ++module) {
        ats::result<> result = machine_->modules.rmmod(*module);
        if (!result) return result;
    }
    return {};
}

} // namespace world
