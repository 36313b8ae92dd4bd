// The GSI service of a machine: the GSI layer of each HCA, the datagram pools of its clients, and the transaction IDs
// of the host.
#pragma once

#include <map>

#include "host/stack/gsi-adapter.h"

namespace stack
{

struct gsi_adapter_view {
    std::string hca;
    gsi_counts counts;
    sa_counts sa;
};

struct registration_view {
    std::string hca;
    registration record;
};

struct gsi_pool_view {
    std::string name;
    size_t size;
    size_t free;
};

class gsi final : public kernel::service
{
  public:
    explicit gsi(kernel::machine& home);

    // A hard error if a client has not given back a class, a pool or a received datagram.
    ~gsi() override;

    // For reports: the HCAs on which classes can be registered, and the pools.
    std::vector<gsi_adapter_view> adapters() const;
    std::vector<gsi_pool_view> pools() const;

    // For each HCA, its completion context and gsi_adapter::batch_in_work(). Any thread.
    std::vector<std::pair<std::string, uint64_t>> batches_in_work() const;

    // For reports: the state of the records that were registered through each HCA.
    std::vector<registration_view> registrations() const;

    // The records that were Set through the HCAs; see registrations::set_records().
    std::vector<ib_service_record_v2_t> set_records() const;

    std::vector<std::string> left_by(const kernel::module_code& module) const override;

    // Returns the GSI layer of an HCA, or null if the machine has no HCA with that name. The first call for an HCA
    // starts its completion task. It throws a shortage if the task cannot be created.
    gsi_adapter* adapter(const char* name_in_stack);

    // Creates a pool; the service owns it. `creator` is the address of the calling code. Returns null if there is no
    // memory.
    datagram_pool* create_pool(const char* name, size_t size, const void* creator);

    // Returns false if there is no such pool. A hard error if a datagram was not put back.
    bool destroy_pool(const datagram_pool* pool);

  private:
    kernel::machine& home_;
    std::atomic<uint64_t> last_transaction_id_{0}; // counts up; the low 32 bits differ for all requests in flight
    mutable std::mutex mutex_;
    std::vector<std::unique_ptr<gsi_adapter>> adapters_;
    std::map<const datagram_pool*, const void*> creators_; // the code that has created each pool
    std::vector<std::unique_ptr<datagram_pool>> pools_;
};

} // namespace stack
