// The configuration of `ats run`: the fabric and its hosts.
#pragma once

#include <string>
#include <vector>

#include "cli/service/access.h"
#include "cli/service/limits.h"
#include "host/fabric/umad/umad.h"
#include "host/result.h"
#include "host/world/host.h"

namespace cli
{

// The memory of a host's log, in KiB.
constexpr int default_log_kib = kernel::default_log_bytes / 1024;
constexpr int least_log_kib = 16;
constexpr int most_log_kib = 1024 * 1024;
constexpr size_t bytes_of_kib(int kib)
{
    return static_cast<size_t>(kib) * 1024;
}

struct fabric_config {
    bool is_real = false;            // this machine's real ports, with one host; else an embedded fabric
    umad::fabric_options ports = {}; // of a real fabric
    std::string capture = {};        // the file that every datagram is written to; "": none
};

// Whether programs that use librdmacm are answered, and how.
struct acm_config {
    bool is_served = false;
    std::string socket = "/run/ibacm.sock"; // where librdmacm looks
    int timeout_ms = 2000;                  // a request is answered within this time
};

struct world_config {
    std::vector<world::host_plan> hosts = {};
    fabric_config fabric = {};
    access_rules access = {};
    service_limits limits = {};
    acm_config acm = {};
    std::vector<std::string> warnings = {}; // a line for each setting that may be a mistake
};

// `count` hosts node1, node2, ... with a one-port HCA each and the addresses 10.0.0.1 onwards.
world_config numbered_hosts(int count);

// One host of that name and address on the real ports of `ports`. "" stands for this machine's name. A name or an
// address that no host can have is invalid.
ats::result<world_config> real_host(const std::string& name, const std::string& address,
                                    const umad::fabric_options& ports);

// `word` is "auto", "on" or "off".
umad::delete_p_key delete_p_key_of(const std::string& word);

// Reads a TOML file: [[host]] tables, [fabric], [access], [limits] and [acm]; ats-run(8) lists the keys. Unknown keys,
// wrong types, names used twice, addresses that no host can have, and numbers out of range are invalid. An error is a
// line "FILE:LINE: what is wrong and what would be right".
ats::result<world_config> read_world_config(const std::string& path);

} // namespace cli
