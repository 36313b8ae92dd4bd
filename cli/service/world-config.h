// The configuration of `ats run`: the fabric, its hosts, and the access to the service. It comes from a file or from
// the command line.
#pragma once

#include <string>
#include <vector>

#include "cli/service/access.h"
#include "cli/service/limits.h"
#include "host/fabric/umad/umad.h"
#include "host/result.h"
#include "host/world/host.h"
#include "logger.h"

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
    bool is_real = false;            // true: this machine's real ports, with one host; false: an embedded fabric
    umad::fabric_options ports = {}; // only for a real fabric
    std::string capture = {};        // the file for all datagrams, or ""
    std::string record = {};         // the file for a recording, or ""
};

// Settings for programs that use librdmacm.
struct acm_config {
    bool is_served = false;
    std::string socket = "/run/ibacm.sock"; // the socket that librdmacm uses
    int timeout_ms = 2000;                  // a request is answered within this time

    bool operator==(const acm_config&) const = default;
};

// The places where the service publishes its metrics, in addition to `ats metrics`; see docs/metrics.md.
struct metrics_config {
    std::string textfile = {}; // the folder of node_exporter's textfile collector, or ""
    std::string listen = {};   // the address and port of an HTTP server, or ""

    bool operator==(const metrics_config&) const = default;
};

// The maximum of spread_seconds. The spread delays the start of the service (start-delay.h), and by default systemd
// ends a service that has not started after 90 seconds.
constexpr int longest_spread_seconds = 60;

// How often a host asks the SA for its own record. The time between two checks is the period plus a random time, which
// is at most `skew_percent` of the period. The module ats has the same defaults.
struct verification {
    int period_seconds = 60; // 0: never
    int skew_percent = 1;

    bool operator==(const verification&) const = default;
};

// The settings of a host that can change at run time.
struct host_settings {
    std::string name = {};
    std::string address = {};
    int trace = ZR_ERROR;
    cli::verification verification = {};
    int spread_seconds = 0; // see stack::link_up_spread and start_delay()

    bool operator==(const host_settings&) const = default;
};

// A host's plan, built from its settings and from the module parameters in the file.
struct host_config : world::host_plan {
    host_settings settings = {};
    std::vector<std::string> parameters = {}; // for each module, its parameters in the file, as text for insmod

    // True after a reload that could not change the name or the address. The host may have the old or the new value.
    bool is_name_unsure = false, is_address_unsure = false;
};

// The name and the address of a host from options of the command line. "" stands for an option that was not given.
struct identity_options {
    std::string name = {};
    std::string address = {};
};

struct world_config {
    std::vector<host_config> hosts = {};
    fabric_config fabric = {};
    access_rules access = {};
    service_limits limits = {};
    acm_config acm = {};
    metrics_config metrics = {};
    std::vector<std::string> warnings = {}; // one line for each setting that may be a mistake
};

// Returns a configuration with the hosts node1, node2, ... on an embedded fabric. Their addresses are 10.0.0.1,
// 10.0.0.2, ... Each host has one HCA with one port.
world_config numbered_hosts(int count);

// Returns a configuration with one host on the real ports that `ports` selects. Without the option for the name, the
// host gets this machine's name. Fails (invalid) without the option for the address, or if a host cannot have the name
// or the address.
ats::result<world_config> real_host(const identity_options& identity, const umad::fabric_options& ports);

// Converts the value of an option or a key. `word` is "auto", "on" or "off".
umad::delete_p_key delete_p_key_of(const std::string& word);

// Reads a TOML file: [[host]] tables, [fabric], [access], [limits], [acm] and [metrics]; ats-run(8) lists the keys.
// Fails (invalid) for unknown keys and wrong values, for example names used twice, addresses that a host cannot have,
// and numbers out of range. Also fails for a file without a host, with more than 1000 hosts, or that cannot be read. An
// error is a line "FILE:LINE: what is wrong, and what is valid"; it has no LINE if the file cannot be read. The values
// of `identity` replace those of the file's host. With them, also fails (invalid) if the file has several hosts.
ats::result<world_config> read_world_config(const std::string& path, const identity_options& identity = {});

} // namespace cli
