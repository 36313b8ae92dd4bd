// Orders that change a running host. Requests of clients and the reload of the configuration use the same orders.
#pragma once

#include <string>

#include "cli/service/world-config.h"
#include "host/result.h"
#include "host/world/host.h"

namespace cli
{

// Any thread outside of the machines may give these orders. They may sleep. The error says that the module is not
// loaded, or why the order failed.

// Writes a command to the control file. Returns the text that the module printed about it.
ats::result<std::string> write_control(world::host& host, const std::string& command);

// Sets the trace level: from 0 (nothing) to 5 (everything).
void set_trace_level(world::host& host, int level);

// Sets how often the host asks the SA for its record. The new period begins after the next check of each HCA.
// Spreads the host's later link-ups and registrations; see stack::link_up_spread.
void set_spread(world::host& host, int seconds);

ats::result<> set_verification(world::host& host, const verification& verification);

enum class completion { sent, confirmed };

// Changes the registered name or address, which must be valid. Waits until the record has been sent, or until the SA
// has confirmed it: at most about three seconds. If the record is stored, but not sent or not confirmed, this is an
// error. A later check then registers the record.
ats::result<> set_name(world::host& host, const std::string& name, completion completion);
ats::result<> set_address(world::host& host, uint32_t ip, completion completion);

} // namespace cli
