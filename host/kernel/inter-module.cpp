#include "host/kernel/inter-module.h"

#include "host/kernel/machine.h"
#include "kernel/module.h"

namespace kernel
{

void inter_module_registry::publish(const std::string& name, const kernel_module_t* owner, const void* pointer)
{
    const std::lock_guard lock(mutex_);
    if (!entries_.try_emplace(name, entry{owner, pointer, 0}).second)
        panic("inter_module_register: the name %s is in use", name.c_str());
}

void inter_module_registry::withdraw(const std::string& name)
{
    const std::lock_guard lock(mutex_);
    const auto position = entries_.find(name);
    if (position == entries_.end()) panic("inter_module_unregister: %s is not registered", name.c_str());
    if (position->second.references > 0)
        panic("inter_module_unregister: %s has %d references", name.c_str(), position->second.references);
    entries_.erase(position);
}

const void* inter_module_registry::get(const std::string& name)
{
    const std::lock_guard lock(mutex_);
    const auto position = entries_.find(name);
    if (position == entries_.end() || !machine_.modules.hold(position->second.owner)) return nullptr;
    ++position->second.references;
    return position->second.pointer;
}

void inter_module_registry::put(const std::string& name)
{
    const std::lock_guard lock(mutex_);
    const auto position = entries_.find(name);
    if (position == entries_.end() || position->second.references == 0)
        panic("inter_module_put: %s is not held", name.c_str());
    --position->second.references;
    machine_.modules.release(position->second.owner);
}

std::vector<std::string> inter_module_registry::names() const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& [name, entry] : entries_) names.push_back(name);
    return names;
}

int inter_module_registry::references(const std::string& name) const
{
    const std::lock_guard lock(mutex_);
    const auto position = entries_.find(name);
    return position == entries_.end() ? 0 : position->second.references;
}

std::string inter_module_registry::name_owned_by(const kernel_module_t& owner) const
{
    const std::lock_guard lock(mutex_);
    for (const auto& [name, entry] : entries_)
        if (entry.owner == &owner) return name;
    return "";
}

} // namespace kernel
