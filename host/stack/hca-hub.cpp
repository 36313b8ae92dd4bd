#include "host/stack/hca-hub.h"

#include <algorithm>
#include <cstring>

namespace stack
{

hca_hub::hca_hub(fabric::hca& adapter) : adapter_(adapter)
{
    sema_init_named(&changing_, 1, "HCA listeners");
}

void hca_hub::attach(fabric::listener& to)
{
    down(&changing_);
    bool is_first;
    {
        const std::lock_guard lock(mutex_);
        is_first = attached_.empty();
        const auto known = std::ranges::find(attached_, &to, &attached::listener);
        if (known == attached_.end())
            attached_.push_back({&to, 1});
        else
            ++known->times;
    }
    if (is_first) adapter_.listen(this);
    up(&changing_);
}

void hca_hub::detach(fabric::listener& from)
{
    down(&changing_);
    bool was_last = false;
    {
        const std::lock_guard lock(mutex_);
        const auto known = std::ranges::find(attached_, &from, &attached::listener);
        if (known == attached_.end()) exec::panic("%s: detach without attach", adapter_.name().c_str());
        if (--known->times == 0) {
            attached_.erase(known);
            was_last = attached_.empty();
        }
    }
    if (was_last) adapter_.listen(nullptr);
    up(&changing_);
}

void hca_hub::mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad)
{
    const std::lock_guard lock(mutex_);
    for (const attached& each : attached_) each.listener->mad_arrived(port, source, mad);
}

void hca_hub::may_complete(bool again)
{
    const std::lock_guard lock(mutex_);
    for (const attached& each : attached_) each.listener->may_complete(again);
}

void hca_hub::port_changed(int port, fabric::port_change change, uint16_t new_sm_lid)
{
    const std::lock_guard lock(mutex_);
    for (const attached& each : attached_) each.listener->port_changed(port, change, new_sm_lid);
}

hca_hub& hca_hubs::of(fabric::hca& adapter)
{
    const std::lock_guard lock(mutex_);
    std::unique_ptr<hca_hub>& hub = hubs_[&adapter];
    if (!hub) hub = std::make_unique<hca_hub>(adapter);
    return *hub;
}

kq_hca_name name_in_stack(const fabric::hca& adapter)
{
    kq_hca_name record{};
    adapter.name().copy(record.name, sizeof record.name - 1);
    return record;
}

fabric::hca* find_hca(const kernel::machine& home, const char* name)
{
    for (fabric::hca* adapter : home.hcas())
        if (std::strncmp(name_in_stack(*adapter).name, name, sizeof kq_hca_name::name) == 0) return adapter;
    return nullptr;
}

} // namespace stack
