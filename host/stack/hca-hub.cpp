#include "host/stack/hca-hub.h"

#include <algorithm>
#include <cstring>

namespace stack
{

hca_hub::hca_hub(fabric::hca& adapter) : adapter_(adapter)
{
    sema_init_named(&change_semaphore_, 1, "HCA listeners");
}

void hca_hub::attach(fabric::listener& listener)
{
    down(&change_semaphore_);
    bool is_first;
    {
        const std::lock_guard lock(mutex_);
        is_first = listeners_.empty();
        const auto entry = std::ranges::find(listeners_, &listener, &attached_listener::listener);
        if (entry == listeners_.end())
            listeners_.push_back({&listener, 1});
        else
            ++entry->attach_count;
    }
    if (is_first) adapter_.listen(this);
    up(&change_semaphore_);
}

void hca_hub::detach(fabric::listener& listener)
{
    down(&change_semaphore_);
    bool was_last = false;
    {
        const std::lock_guard lock(mutex_);
        const auto entry = std::ranges::find(listeners_, &listener, &attached_listener::listener);
        if (entry == listeners_.end()) exec::panic("%s: detach without attach", adapter_.name().c_str());
        --entry->attach_count;
        if (entry->attach_count == 0) {
            listeners_.erase(entry);
            was_last = listeners_.empty();
        }
    }
    if (was_last) adapter_.listen(nullptr);
    up(&change_semaphore_);
}

void hca_hub::mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad)
{
    const std::lock_guard lock(mutex_);
    for (const attached_listener& each : listeners_) each.listener->mad_arrived(port, source, mad);
}

void hca_hub::may_complete(bool again)
{
    const std::lock_guard lock(mutex_);
    for (const attached_listener& each : listeners_) each.listener->may_complete(again);
}

void hca_hub::port_changed(int port, fabric::port_change change, uint16_t new_sm_lid)
{
    const std::lock_guard lock(mutex_);
    for (const attached_listener& each : listeners_) each.listener->port_changed(port, change, new_sm_lid);
}

hca_hub& hca_hubs::hub_of(fabric::hca& adapter)
{
    const std::lock_guard lock(mutex_);
    std::unique_ptr<hca_hub>& hub = hubs_[&adapter];
    if (!hub) hub = std::make_unique<hca_hub>(adapter);
    return *hub;
}

kq_hca_name name_for_modules(const fabric::hca& adapter)
{
    kq_hca_name record{};
    adapter.name().copy(record.name, sizeof record.name - 1);
    return record;
}

fabric::hca* find_hca(const kernel::machine& home, const char* name)
{
    for (fabric::hca* adapter : home.hcas())
        if (std::strncmp(name_for_modules(*adapter).name, name, sizeof kq_hca_name::name) == 0) return adapter;
    return nullptr;
}

} // namespace stack
