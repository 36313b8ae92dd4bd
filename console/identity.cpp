#include "console/identity.h"

#include <algorithm>
#include <arpa/inet.h>
#include <climits>
#include <unistd.h>

#include <fmt/format.h>

#include "console/errors.h"
#include "host/world/printable.h"
#include "host/world/text.h"

namespace console
{

namespace
{

// A range of addresses that no host can have.
struct address_range {
    uint32_t first, last; // host order
    const char* reason;
};
constexpr address_range unusable_ranges[] = {
    {0x00000000, 0x00FFFFFF, "it means 'this network'"},
    {0x7F000000, 0x7FFFFFFF, "it is a loopback address"},
    {0xE0000000, 0xEFFFFFFF, "it is a multicast address"},
    {0xFFFFFFFF, 0xFFFFFFFF, "it is the broadcast address"},
};

} // namespace

bool is_host_name(const std::string& name)
{
    return !name.empty() && name.size() <= longest_host_name_bytes && name != "." && name != ".." &&
           name.find_first_of(" /\"") == std::string::npos && world::is_printable(name);
}

std::string host_name_for(const std::string& machine_name, std::vector<std::string>& remarks)
{
    const std::string whole = machine_name.substr(0, machine_name.find('.'));
    std::string name = world::cut_to_bytes(whole, longest_host_name_bytes);
    if (name != whole)
        remarks.push_back(fmt::format("this machine's name has {} bytes, and a record carries {}: it registers as {}; "
                                      "choose another name with --name, or 'name' in the configuration",
                                      whole.size(), longest_host_name_bytes, quote(name)));
    return name;
}

std::string host_name_of_machine(std::vector<std::string>& remarks)
{
    char name[HOST_NAME_MAX + 1] = {};
    gethostname(name, HOST_NAME_MAX);
    return host_name_for(name, remarks);
}

ats::result<uint32_t> address_of(const std::string& text, const std::string& place)
{
    const std::optional<uint32_t> address = world::parse_ipv4(text);
    if (address) return *address;
    return ats::fail(ats::error_kind::invalid,
                     place + quote(text) + " is not an IPv4 address: write four numbers from 0 to 255, like 10.0.0.1");
}

ats::result<uint32_t> host_address_of(const std::string& text, const std::string& place)
{
    ats::result<uint32_t> address = address_of(text, place);
    if (!address) return address;
    const auto contains_address = [&](const address_range& range) {
        return ntohl(*address) >= range.first && ntohl(*address) <= range.last;
    };
    const auto* const range = std::ranges::find_if(unusable_ranges, contains_address);
    if (range == std::end(unusable_ranges)) return address;
    return ats::fail(ats::error_kind::invalid, place + quote(text) + " cannot be a host's address: " + range->reason +
                                                   "; take one that other hosts reach it by, as in 10.0.0.1");
}

std::string shared_address_warning(const std::string& host, const std::string& other, const std::string& address)
{
    return fmt::format("{} has the same address as {}, {}: the SA names no owner of it while both are registered",
                       quote(host), quote(other), address);
}

std::string several_hcas_warning(const std::vector<std::string>& hcas, const std::string& address)
{
    return fmt::format("{} HCAs ({}) register the same address{}: the SA names no owner of it while more than one is "
                       "registered; choose one with --hca, or with a [[host.hca]] table",
                       hcas.size(), fmt::join(hcas, ", "), address.empty() ? "" : ", " + address);
}

} // namespace console
