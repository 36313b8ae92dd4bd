// Functions that change a running host. Requests of clients and the reload of the configuration use the same functions.
//
// Call them from a thread that is not a task of a machine. They may sleep. An error says that the module ats is not
// loaded, or why the change failed.
#pragma once

#include <string>

#include "cli/service/world-config.h"
#include "host/result.h"
#include "host/world/host.h"

namespace cli
{

// Writes a command to the control file. Returns the text that ats printed meanwhile.
ats::result<std::string> write_control(world::host& host, const std::string& command);

// Sets the trace level of ats: from 0 (traces nothing) to 5 (traces everything).
void set_trace_level(world::host& host, int level);

// Delays each later link-up and request to register again, and the registration that follows, by a random time of up to
// `seconds`; see stack::link_up_spread.
void set_spread(world::host& host, int seconds);

// Sets how often the host checks its record at the SA. Each HCA uses the new period from its next check on; if checks
// were off, from at most 60 seconds later on.
ats::result<> set_verification(world::host& host, const verification& verification);

// The event for which set_name() and set_address() wait: the host has sent the record, or the SA has confirmed it.
enum class completion { sent, confirmed };

// Changes the registered name or address. `name` must pass console::is_host_name(). `ip` is in network order and must
// be a result of console::host_address_of(). Waits for `completion`, at most about three seconds. Fails if the host has
// stored the new value but the record was not sent, or not confirmed. The next link-up then registers the new record.
// The next check does so only if the SA does not answer it with the new address: a check does not compare names. If an
// HCA could not send the record, the HCAs after it keep the old value until the call is repeated.
ats::result<> set_name(world::host& host, const std::string& name, completion completion);
ats::result<> set_address(world::host& host, uint32_t ip, completion completion);

} // namespace cli
