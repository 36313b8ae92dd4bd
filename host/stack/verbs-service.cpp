#include "host/stack/verbs-service.h"

namespace stack
{

verbs::verbs(kernel::machine& home) : home_(home)
{
    home.get<hca_hubs>(); // goes after this service
}

verbs::~verbs()
{
    if (!open_.empty())
        kernel::panic("machine %s goes while %s is open", home_.name().c_str(),
                      open_.begin()->second->hca().name().c_str());
}

kq_hca_h_t verbs::open(const char* name_in_stack)
{
    fabric::hca* plugged = find_hca(home_, name_in_stack);
    if (!plugged) return nullptr;
    const std::lock_guard lock(mutex_);
    std::unique_ptr<hca_events>& adapter = adapters_[plugged];
    if (!adapter) adapter = std::make_unique<hca_events>(home_, *plugged);
    const auto handle = reinterpret_cast<kq_hca_h_t>(++last_handle_);
    open_[handle] = adapter.get();
    return handle;
}

hca_events* verbs::find(kq_hca_h_t handle) const
{
    const std::lock_guard lock(mutex_);
    const auto found = open_.find(handle);
    return found != open_.end() ? found->second : nullptr;
}

kq_return_t verbs::close(kq_hca_h_t handle)
{
    const std::lock_guard lock(mutex_);
    const auto found = open_.find(handle);
    if (found == open_.end()) return kq_return_err_invalid_hca;
    if (found->second->is_subscribed(handle)) return kq_return_err_busy;
    open_.erase(found);
    return kq_return_ok;
}

} // namespace stack
