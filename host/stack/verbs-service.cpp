#include "host/stack/verbs-service.h"

#include "host/kernel/module-image.h"

namespace stack
{

verbs::verbs(kernel::machine& home) : home_(home)
{
    home.get<hca_hubs>(); // the hubs exist before this service, so the machine destroys them after this service
}

verbs::~verbs()
{
    if (!open_hcas_.empty())
        exec::panic("machine %s is destroyed while %s is open", home_.name().c_str(),
                    open_hcas_.begin()->second.events->hca().name().c_str());
}

hca_events& verbs::events_of(fabric::hca& adapter)
{
    const std::lock_guard lock(mutex_);
    std::unique_ptr<hca_events>& events = events_[&adapter];
    if (!events) events = std::make_unique<hca_events>(home_, adapter);
    return *events;
}

kq_hca_h_t verbs::open(const char* name_for_modules, const void* opener)
{
    fabric::hca* adapter = find_hca(home_, name_for_modules);
    if (!adapter) return nullptr;
    hca_events& events = events_of(*adapter);
    const std::lock_guard lock(mutex_);
    const auto handle = reinterpret_cast<kq_hca_h_t>(++last_handle_);
    open_hcas_[handle] = {&events, opener};
    return handle;
}

hca_events* verbs::find(kq_hca_h_t handle) const
{
    const std::lock_guard lock(mutex_);
    const auto entry = open_hcas_.find(handle);
    return entry != open_hcas_.end() ? entry->second.events : nullptr;
}

kq_return_t verbs::close(kq_hca_h_t handle)
{
    const std::lock_guard lock(mutex_);
    const auto entry = open_hcas_.find(handle);
    if (entry == open_hcas_.end()) return kq_return_err_invalid_hca;
    if (entry->second.events->is_subscribed(handle)) return kq_return_err_busy;
    open_hcas_.erase(entry);
    return kq_return_ok;
}

std::vector<std::string> verbs::left_by(const kernel::module_code& module) const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> leftovers;
    for (const auto& [handle, each] : open_hcas_)
        if (module.holds(each.opener)) leftovers.push_back("open HCA " + each.events->hca().name());
    for (const auto& [adapter, events] : events_)
        if (events->calls(module)) leftovers.push_back("a subscription to the events of " + adapter->name());
    return leftovers;
}

} // namespace stack
