// The GSI service of a machine. It owns the GSI layer of each HCA (gsi_adapter), the datagram pools of the clients, and
// the counter of TransactionIDs for the host.
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

// The registration of a ServiceRecord at the SA, not that of a management class.
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

    // Ends the process (exec::panic) if a class is still registered, if a pool still exists, or if a received datagram
    // was not put back.
    ~gsi() override;

    // For reports: the HCAs that adapter() was called for, and the clients' pools.
    std::vector<gsi_adapter_view> adapters() const;
    std::vector<gsi_pool_view> pools() const;

    // For each HCA: the name of its completion context, and the result of gsi_adapter::batch_in_work(). Any thread.
    std::vector<std::pair<std::string, uint64_t>> batches_in_work() const;

    // For reports: the state of the ServiceRecords that clients have registered through each HCA.
    std::vector<registration_view> registrations() const;

    // Returns the ServiceRecords that clients have sent in Sets through all HCAs; see registrations::set_records().
    std::vector<ib_service_record_v2_t> set_records() const;

    std::vector<std::string> left_by(const kernel::module_code& module) const override;

    // Returns the GSI layer of an HCA, or null if the machine has no HCA with that name. The first call for an HCA
    // starts the completion task of the HCA, and throws exec::shortage if the task cannot be created.
    gsi_adapter* adapter(const char* name_for_modules);

    // Creates a pool. The service owns the pool. `creator` is an address in the caller's code, for left_by(). Returns
    // null if there is no memory.
    datagram_pool* create_pool(const char* name, size_t size, const void* creator);

    // Returns false if there is no such pool. Ends the process (exec::panic) if a datagram of the pool was not put
    // back.
    bool destroy_pool(const datagram_pool* pool);

  private:
    kernel::machine& home_;
    std::atomic<uint64_t> last_transaction_id_{0}; // one counter for all HCAs of the host
    mutable std::mutex mutex_;                     // guards the members below
    std::vector<std::unique_ptr<gsi_adapter>> adapters_;
    std::map<const datagram_pool*, const void*> creators_; // for each pool, an address in the code that created it
    std::vector<std::unique_ptr<datagram_pool>> pools_;
};

} // namespace stack
