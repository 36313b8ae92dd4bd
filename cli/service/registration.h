// Tells if the SA holds a host's record, from the requests and answers that the host's stack saw on the wire.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/world/host.h"
#include "records/host-record.h"

namespace cli
{

// One for each HCA, as ats(8) describes "registrations".
nlohmann::json registrations_of(world::host& host);

// The name in the record that the host registered last; "" while it has registered none.
std::string registered_name(world::host& host);

// Waits for the SA to confirm what an order changes. Made before the order is given.
class confirmation
{
  public:
    using is_wanted_t = std::function<bool(const records::host_record&)>;

    // `is_wanted` tells the new record from others.
    confirmation(world::host& host, is_wanted_t is_wanted);

    // Call when the order has returned. Returns "" once every HCA with a link is registered with a wanted record, or
    // the reason why one is not. Waits for an answer that is missing; asks the SA once when none comes. That takes
    // some three seconds at the most.
    std::string wait();

  private:
    world::host& host_;
    const is_wanted_t is_wanted_;
    std::vector<uint64_t> confirmations_before_; // of each HCA
};

} // namespace cli
