// Reports if the SA has a host's record. It uses the requests and answers that the host's stack has seen on the wire.
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

// One JSON object for each HCA. docs/protocol.md and ats(8) describe them under "registrations". Call it from outside
// of the machine.
nlohmann::json registrations_of(world::host& host);

// The host name in the record that was sent last, or "" if none was sent. Call it from outside of the machine.
std::string registered_name(world::host& host);

// Waits until the SA has confirmed the change that an order makes. Create the object before giving the order. The host
// must outlive it.
class confirmation
{
  public:
    using is_new_record_t = std::function<bool(const records::host_record&)>;

    // `is_new_record` distinguishes the record of the order from the previous one.
    confirmation(world::host& host, is_new_record_t is_new_record);

    // Call it after the order has returned, from outside of the machine. Succeeds when every HCA with a link has
    // registered the new record. Otherwise the error gives the reason for one HCA. Waits for a missing answer, and asks
    // the SA once if none comes. Takes at most about three seconds.
    ats::result<> wait();

  private:
    world::host& host_;
    const is_new_record_t is_new_record_;
    std::vector<uint64_t> confirmations_before_; // of each HCA
};

} // namespace cli
