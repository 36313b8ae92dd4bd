// Reports whether the SA has a host's record. The reports result from the requests and answers that pass through the
// host's stack; see stack::registrations.
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

// Returns one JSON object for each HCA. docs/protocol.md and ats(8) describe the objects under "registrations". The
// calling thread must not be a task of the machine.
nlohmann::json registrations_of(world::host& host);

// Returns the host name in the last record of the first HCA that has sent a record, or "" if no HCA has sent any. The
// calling thread must not be a task of the machine.
std::string registered_name(world::host& host);

// Waits until the SA has confirmed a change of the host's record. Create the object before you make the change. The
// host must outlive the object.
class confirmation
{
  public:
    using is_new_record_t = std::function<bool(const records::host_record&)>;

    // `is_new_record` returns true for the changed record and false for the previous record.
    confirmation(world::host& host, is_new_record_t is_new_record);

    // Call wait() after the change. Succeeds when the SA has confirmed the new record of every HCA with a link.
    // Otherwise the error gives the reason for one HCA. If the SA has not answered after a second, asks the SA once for
    // the owner of the address. Takes at most about three seconds. The calling thread must not be a task of the
    // machine.
    ats::result<> wait();

  private:
    world::host& host_;
    const is_new_record_t is_new_record_;
    std::vector<uint64_t> confirmations_before_; // stack::registration::confirmations of each HCA before the change
};

} // namespace cli
