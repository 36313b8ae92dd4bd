#include "host/stack/gsi-service.h"

#include <algorithm>

#include "host/kernel/module-image.h"

namespace stack
{

gsi::gsi(kernel::machine& home) : home_(home)
{
    home.get<hca_hubs>(); // goes after this service
}

gsi::~gsi()
{
    if (!pools_.empty())
        exec::panic("machine %s goes while datagram pool '%s' exists", home_.name().c_str(), pools_[0]->name().c_str());
}

gsi_adapter* gsi::adapter(const char* name_in_stack)
{
    fabric::hca* plugged = find_hca(home_, name_in_stack);
    if (!plugged) return nullptr;
    const std::lock_guard lock(mutex_);
    for (const auto& each : adapters_)
        if (&each->hca() == plugged) return each.get();
    adapters_.push_back(std::make_unique<gsi_adapter>(home_, *plugged, last_transaction_id_));
    return adapters_.back().get();
}

datagram_pool* gsi::create_pool(const char* name, size_t size, const void* creator)
{
    std::unique_ptr<datagram_pool> made = datagram_pool::make(home_.exec(), name, size);
    if (!made) return nullptr;
    home_.addresses.add_object(made->memory(), made->memory_bytes());
    const std::lock_guard lock(mutex_);
    pools_.push_back(std::move(made));
    creators_[pools_.back().get()] = creator;
    return pools_.back().get();
}

bool gsi::destroy_pool(const datagram_pool* pool)
{
    std::unique_ptr<datagram_pool> ending;
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find(pools_, pool, &std::unique_ptr<datagram_pool>::get);
    if (found == pools_.end()) return false;
    ending = std::move(*found);
    home_.addresses.remove(ending->memory());
    pools_.erase(found);
    creators_.erase(pool);
    return true;
}

std::vector<std::string> gsi::left_by(const kernel::module_code& leaving) const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> left;
    for (const auto& each : adapters_)
        for (std::string& text : each->left_by(leaving)) left.push_back(std::move(text));
    for (const auto& each : pools_)
        if (leaving.holds(creators_.at(each.get()))) left.push_back("datagram pool '" + each->name() + "'");
    return left;
}

std::vector<gsi_adapter_view> gsi::adapters() const
{
    const std::lock_guard lock(mutex_);
    std::vector<gsi_adapter_view> list;
    for (const auto& each : adapters_) list.push_back({each->hca().name(), each->counts()});
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

std::vector<gsi_pool_view> gsi::pools() const
{
    const std::lock_guard lock(mutex_);
    std::vector<gsi_pool_view> list;
    for (const auto& each : pools_) list.push_back({each->name(), each->size(), each->free()});
    return list;
}

} // namespace stack
