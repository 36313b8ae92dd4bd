#include "host/kernel/machine.h"

#include <cstdio>

#include "host/kernel/module-image.h"

namespace kernel
{

machine::machine(executor& exec, std::string name, const machine_options& options)
    : task_home(std::move(name)), log(options.log_bytes), random(options.random_seed), proc(*this),
      inter_modules(*this), modules(*this), exec_(exec)
{
}

machine::~machine()
{
    if (const std::vector<std::string> names = modules.loaded(); !names.empty())
        panic("machine %s is destroyed while %s is loaded", name().c_str(), names.back().c_str());
    while (!services_.empty()) services_.pop_back();
    for (const std::string& leak : memory.leaks()) std::fprintf(stderr, "%s leaked %s\n", name().c_str(), leak.c_str());
}

std::vector<std::string> machine::left_by(const module_code& code) const
{
    // The services are called without the lock, because a service may create another service in this call.
    std::vector<const service*> services;
    {
        const std::lock_guard lock(services_mutex_);
        for (const auto& each : services_) services.push_back(each.get());
    }
    std::vector<std::string> leftovers;
    for (const service* each : services)
        for (std::string& text : each->left_by(code)) leftovers.push_back(std::move(text));
    return leftovers;
}

service& machine::find_or_make(std::type_index type, std::unique_ptr<service> (*make)(machine&))
{
    {
        const std::lock_guard lock(services_mutex_);
        if (const auto entry = services_by_type_.find(type); entry != services_by_type_.end()) return *entry->second;
    }
    // Create the service without the lock, because its constructor may get other services. If two threads create the
    // same service at the same time, only the service that is stored first is kept.
    std::unique_ptr<service> instance = make(*this);
    const std::lock_guard lock(services_mutex_);
    const auto [entry, is_new] = services_by_type_.try_emplace(type, instance.get());
    if (is_new) services_.push_back(std::move(instance));
    return *entry->second;
}

} // namespace kernel
