// The configuration of `ats run`: which hosts stand on which fabric.
#pragma once

#include <string>
#include <vector>

#include "host/fabric/umad/umad.h"
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
    bool is_real = false;            // real ports, of this machine, for one host
    umad::fabric_options ports = {}; // of a real fabric
    std::string capture = {};        // the file that takes every datagram, "" for none
};

struct world_config {
    std::vector<world::host_plan> hosts = {};
    fabric_config fabric = {};
    std::vector<std::string> remarks = {}; // what may not be meant, a line each
};

// `count` hosts node1, node2, ... with one one-port HCA each and the addresses 10.0.0.1 onwards.
world_config numbered_hosts(int count);

// One host of that name and address on real ports, its HCAs as `ports` says. "" stands for this machine's name. Throws
// a failure when that is no host name, or the address no host's.
world_config real_host(const std::string& name, const std::string& address, const umad::fabric_options& ports);

// "auto", "on" or "off".
umad::delete_p_key delete_p_key_of(const std::string& word);

// Reads a TOML file of [[host]] tables; ats-run(8) lists the keys. Unknown keys, wrong types, names used twice,
// addresses of no host and numbers out of range are refused with a failure: "FILE:LINE: what is wrong and what would be
// right".
world_config read_world_config(const std::string& path);

} // namespace cli
