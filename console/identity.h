// The rules for a host's name and address. They apply to the configuration, to the command line and to requests from
// clients. A value that cannot work is an error. A value that works but is probably a mistake gives a warning.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/result.h"

namespace console
{

// The longest host name that fits into a ServiceRecord, in bytes.
constexpr size_t longest_host_name_bytes = 30;

// Returns true if the name fits a ServiceRecord, a module's parameter and the name of a folder. `host_name_rule`
// describes a valid name.
bool is_host_name(const std::string& name);
constexpr const char* host_name_rule =
    "1 to 30 bytes of UTF-8 without blanks, slashes, quotation marks and control characters, and neither . nor ..";

// Makes a host name from a machine's name: removes the domain, and cuts the rest to longest_host_name_bytes. If it cuts
// the name, it adds a line to `remarks`.
std::string host_name_for(const std::string& machine_name, std::vector<std::string>& remarks);

// Calls host_name_for() with the result of gethostname().
std::string host_name_of_machine(std::vector<std::string>& remarks);

// Reads an IPv4 address; the value is in network order. Fails (invalid) for any other text. The error begins with
// `place`, for example the name of the option.
ats::result<uint32_t> address_of(const std::string& text, const std::string& place = "");

// Reads the address of a host, like address_of(). Also fails (invalid) for addresses that no host can have: 0.0.0.0/8,
// loopback, multicast and broadcast.
ats::result<uint32_t> host_address_of(const std::string& text, const std::string& place = "");

// Returns the warning that two hosts of one fabric have the same address. While both are registered, the SA fails every
// lookup of the address.
std::string shared_address_warning(const std::string& host, const std::string& other, const std::string& address);

// Returns the warning that a host has several HCAs. Each of them registers the host's address under its own GID. While
// the SA has several of these records, it fails every lookup of the address. `address` may be "" if it is not known.
std::string several_hcas_warning(const std::vector<std::string>& hcas, const std::string& address);

} // namespace console
