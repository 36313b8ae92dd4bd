// Reports whether the SA holds a host's record. It judges by the requests and answers that the host's stack saw on the
// wire.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/result.h"
#include "host/world/host.h"
#include "records/host-record.h"

namespace cli
{

// One object for each HCA; ats(8) describes them under "registrations". Call from outside of the machine.
nlohmann::json registrations_of(world::host& host);

// The host name in the record that was sent last; "" if none was sent. Call from outside of the machine.
std::string registered_name(world::host& host);

// Waits until the SA has confirmed the change that an order makes. Make it before giving the order. The host outlives
// it.
class confirmation
{
  public:
    using is_new_record_t = std::function<bool(const records::host_record&)>;

    // `is_new_record` distinguishes the record of the order from the one before.
    confirmation(world::host& host, is_new_record_t is_new_record);

    // Call when the order has returned, from outside of the machine. Succeeds once every HCA with a link has registered
    // the new record; otherwise the error says why one has not. Waits for a missing answer, and asks the SA once if
    // none comes. Takes some three seconds at most.
    ats::result<> wait();

  private:
    world::host& host_;
    const is_new_record_t is_new_record_;
    std::vector<uint64_t> confirmations_before_; // of each HCA
};

} // namespace cli
