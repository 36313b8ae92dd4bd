// The rules for a host's name and address. The configuration, the command line and orders share them. A value that
// cannot work is an error. A value that works but is probably a mistake gives a warning.
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

// Makes a host name from a machine's name: without the domain, and cut to the size of a ServiceRecord. Adds a line to
// `remarks` if it was cut.
std::string host_name_for(const std::string& machine_name, std::vector<std::string>& remarks);

// Does the same with the name of this machine.
std::string host_name_of_machine(std::vector<std::string>& remarks);

// Reads an IPv4 address; the value is in network order. Any other text is invalid. The text of the error begins with
// `place`.
ats::result<uint32_t> address_of(const std::string& text, const std::string& place = "");

// Reads the address of a host. "This network", loopback, multicast and broadcast addresses are also invalid.
ats::result<uint32_t> host_address_of(const std::string& text, const std::string& place = "");

// The warning that two hosts of a fabric have the same address. Every lookup of such an address fails.
std::string shared_address_warning(const std::string& host, const std::string& other, const std::string& address);

} // namespace console
