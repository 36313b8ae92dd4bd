#include "host/kernel/machine.h"

#include <cstdio>

#include "host/kernel/module-image.h"

namespace kernel
{

machine::machine(executor& runs_it, std::string name, const machine_options& options)
    : task_home(std::move(name)), log(options.log_bytes), random(options.random_seed), proc(*this),
      inter_modules(*this), modules(*this), exec_(runs_it)
{
}

machine::~machine()
{
    if (const std::vector<std::string> loaded = modules.loaded(); !loaded.empty())
        panic("machine %s goes while %s is loaded", name().c_str(), loaded.back().c_str());
    while (!services_.empty()) services_.pop_back();
    for (const std::string& leak : memory.leaks()) std::fprintf(stderr, "%s leaked %s\n", name().c_str(), leak.c_str());
}

std::vector<std::string> machine::left_by(const module_code& leaving) const
{
    std::vector<const service*> asked; // without the lock: a service may make another one under its own
    {
        const std::lock_guard lock(services_mutex_);
        for (const auto& each : services_) asked.push_back(each.get());
    }
    std::vector<std::string> left;
    for (const service* each : asked)
        for (std::string& text : each->left_by(leaving)) left.push_back(std::move(text));
    return left;
}

service& machine::find_or_make(std::type_index type, std::unique_ptr<service> (*make)(machine&))
{
    {
        const std::lock_guard lock(services_mutex_);
        if (const auto found = services_by_type_.find(type); found != services_by_type_.end()) return *found->second;
    }
    // Made outside the lock: a service may use others. Of two made at once the first stored stays.
    std::unique_ptr<service> made = make(*this);
    const std::lock_guard lock(services_mutex_);
    const auto [entry, is_new] = services_by_type_.try_emplace(type, made.get());
    if (is_new) services_.push_back(std::move(made));
    return *entry->second;
}

} // namespace kernel
