#include "host/kernel/inter-module.h"

#include "host/kernel/machine.h"
#include "kernel/module.h"

namespace kernel
{

void inter_module_registry::publish(const std::string& name, const kernel_module_t* owner, const void* pointer)
{
    const std::lock_guard lock(mutex_);
    if (!entries_.try_emplace(name, entry{owner, pointer, 0}).second)
        panic("inter_module_register: the name %s is taken", name.c_str());
}

void inter_module_registry::withdraw(const std::string& name)
{
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(name);
    if (found == entries_.end()) panic("inter_module_unregister: nobody registered %s", name.c_str());
    if (found->second.references > 0)
        panic("inter_module_unregister: %s is held %d times", name.c_str(), found->second.references);
    entries_.erase(found);
}

const void* inter_module_registry::get(const std::string& name)
{
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(name);
    if (found == entries_.end() || !home_.modules.hold(found->second.owner)) return nullptr;
    ++found->second.references;
    return found->second.pointer;
}

void inter_module_registry::put(const std::string& name)
{
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(name);
    if (found == entries_.end() || found->second.references == 0)
        panic("inter_module_put: %s is not held", name.c_str());
    --found->second.references;
    home_.modules.release(found->second.owner);
}

std::vector<std::string> inter_module_registry::names() const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& [name, published] : entries_) names.push_back(name);
    return names;
}

int inter_module_registry::references(const std::string& name) const
{
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(name);
    return found == entries_.end() ? 0 : found->second.references;
}

std::string inter_module_registry::published_by(const kernel_module_t& owner) const
{
    const std::lock_guard lock(mutex_);
    for (const auto& [name, published] : entries_)
        if (published.owner == &owner) return name;
    return "";
}

} // namespace kernel
