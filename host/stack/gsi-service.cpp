#include "host/stack/gsi-service.h"

#include <algorithm>

#include "host/kernel/module-image.h"

namespace stack
{

gsi::gsi(kernel::machine& home) : home_(home)
{
    home.get<hca_hubs>(); // the hubs exist before this service, so the machine destroys them after this service
}

gsi::~gsi()
{
    if (!pools_.empty())
        exec::panic("machine %s is destroyed while datagram pool '%s' exists", home_.name().c_str(),
                    pools_[0]->name().c_str());
}

gsi_adapter* gsi::adapter(const char* name_for_modules)
{
    fabric::hca* hca = find_hca(home_, name_for_modules);
    if (!hca) return nullptr;
    const std::lock_guard lock(mutex_);
    for (const auto& each : adapters_)
        if (&each->hca() == hca) return each.get();
    adapters_.push_back(std::make_unique<gsi_adapter>(home_, *hca, last_transaction_id_));
    return adapters_.back().get();
}

datagram_pool* gsi::create_pool(const char* name, size_t size, const void* creator)
{
    std::unique_ptr<datagram_pool> pool = datagram_pool::make(home_.exec(), name, size);
    if (!pool) return nullptr;
    home_.addresses.add_object(pool->memory(), pool->memory_bytes());
    const std::lock_guard lock(mutex_);
    pools_.push_back(std::move(pool));
    creators_[pools_.back().get()] = creator;
    return pools_.back().get();
}

bool gsi::destroy_pool(const datagram_pool* pool)
{
    std::unique_ptr<datagram_pool> owner; // declared before the lock, so the pool is destroyed after the unlock
    const std::lock_guard lock(mutex_);
    const auto position = std::ranges::find(pools_, pool, &std::unique_ptr<datagram_pool>::get);
    if (position == pools_.end()) return false;
    owner = std::move(*position);
    home_.addresses.remove(owner->memory());
    pools_.erase(position);
    creators_.erase(pool);
    return true;
}

std::vector<std::string> gsi::left_by(const kernel::module_code& module) const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> leftovers;
    for (const auto& each : adapters_)
        for (std::string& text : each->left_by(module)) leftovers.push_back(std::move(text));
    for (const auto& each : pools_)
        if (module.holds(creators_.at(each.get()))) leftovers.push_back("datagram pool '" + each->name() + "'");
    return leftovers;
}

std::vector<gsi_adapter_view> gsi::adapters() const
{
    const std::lock_guard lock(mutex_);
    std::vector<gsi_adapter_view> list;
    for (const auto& each : adapters_) list.push_back({each->hca().name(), each->counts(), each->sa_traffic_counts()});
    return list;
}

std::vector<std::pair<std::string, uint64_t>> gsi::batches_in_work() const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::pair<std::string, uint64_t>> list;
    for (const auto& each : adapters_) list.emplace_back(each->context_name(), each->batch_in_work());
    return list;
}

std::vector<registration_view> gsi::registrations() const
{
    const std::lock_guard lock(mutex_);
    std::vector<registration_view> list;
    for (const auto& each : adapters_)
        for (const registration& record : each->registrations().list()) list.push_back({each->hca().name(), record});
    return list;
}

std::vector<ib_service_record_v2_t> gsi::set_records() const
{
    const std::lock_guard lock(mutex_);
    std::vector<ib_service_record_v2_t> list;
    for (const auto& each : adapters_)
        for (const ib_service_record_v2_t& record : each->registrations().set_records()) list.push_back(record);
    return list;
}

std::vector<gsi_pool_view> gsi::pools() const
{
    const std::lock_guard lock(mutex_);
    std::vector<gsi_pool_view> list;
    for (const auto& each : pools_) list.push_back({each->name(), each->size(), each->free()});
    return list;
}

} // namespace stack
