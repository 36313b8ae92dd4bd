#include "host/stack/verbs-service.h"

#include "host/kernel/module-image.h"

namespace stack
{

verbs::verbs(kernel::machine& home) : home_(home)
{
    home.get<hca_hubs>(); // goes after this service
}

verbs::~verbs()
{
    if (!open_.empty())
        exec::panic("machine %s goes while %s is open", home_.name().c_str(),
                    open_.begin()->second.adapter->hca().name().c_str());
}

hca_events& verbs::events_of(fabric::hca& plugged)
{
    const std::lock_guard lock(mutex_);
    std::unique_ptr<hca_events>& adapter = adapters_[&plugged];
    if (!adapter) adapter = std::make_unique<hca_events>(home_, plugged);
    return *adapter;
}

kq_hca_h_t verbs::open(const char* name_in_stack, const void* opener)
{
    fabric::hca* plugged = find_hca(home_, name_in_stack);
    if (!plugged) return nullptr;
    hca_events& adapter = events_of(*plugged);
    const std::lock_guard lock(mutex_);
    const auto handle = reinterpret_cast<kq_hca_h_t>(++last_handle_);
    open_[handle] = {&adapter, opener};
    return handle;
}

hca_events* verbs::find(kq_hca_h_t handle) const
{
    const std::lock_guard lock(mutex_);
    const auto found = open_.find(handle);
    return found != open_.end() ? found->second.adapter : nullptr;
}

kq_return_t verbs::close(kq_hca_h_t handle)
{
    const std::lock_guard lock(mutex_);
    const auto found = open_.find(handle);
    if (found == open_.end()) return kq_return_err_invalid_hca;
    if (found->second.adapter->is_subscribed(handle)) return kq_return_err_busy;
    open_.erase(found);
    return kq_return_ok;
}

std::vector<std::string> verbs::left_by(const kernel::module_code& leaving) const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> left;
    for (const auto& [handle, each] : open_)
        if (leaving.holds(each.opener)) left.push_back("open HCA " + each.adapter->hca().name());
    for (const auto& [plugged, adapter] : adapters_)
        if (adapter->calls(leaving)) left.push_back("a subscription to the events of " + adapter->hca().name());
    return left;
}

} // namespace stack
