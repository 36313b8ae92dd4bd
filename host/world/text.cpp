#include "host/world/text.h"

#include <arpa/inet.h>
#include <charconv>

#include "records/host-record.h"

namespace world
{

namespace
{

std::optional<uint64_t> parse_hexadecimal(const std::string& digits)
{
    uint64_t number = 0;
    const char* const end = digits.data() + digits.size();
    const auto [rest, error] = std::from_chars(digits.data(), end, number, 16);
    if (error != std::errc() || rest != end) return std::nullopt;
    return number;
}

// Fills `*address` and returns true if inet_pton() accepts the text. The size of `*address` depends on the family.
// Refuses a text that contains a NUL, because inet_pton() reads only the part before the NUL.
bool parse_address(int family, const std::string& text, void* address)
{
    return text.find('\0') == text.npos && inet_pton(family, text.c_str(), address) == 1;
}

} // namespace

std::optional<uint32_t> parse_ipv4(const std::string& text)
{
    in_addr address{};
    if (!parse_address(AF_INET, text, &address)) return std::nullopt;
    return address.s_addr;
}

std::string format_ipv4(uint32_t ip)
{
    char text[INET_ADDRSTRLEN];
    const in_addr address{ip};
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

std::optional<kq_gid_t> parse_gid(const std::string& text)
{
    constexpr size_t digits_per_half = 16;
    if (text.starts_with("0x")) {
        const std::string digits = text.substr(2);
        if (digits.empty() || digits.size() > 2 * digits_per_half) return std::nullopt;
        const std::string all_digits = std::string(2 * digits_per_half - digits.size(), '0') + digits;
        const auto subnet = parse_hexadecimal(all_digits.substr(0, digits_per_half));
        const auto eui64 = parse_hexadecimal(all_digits.substr(digits_per_half));
        if (!subnet || !eui64) return std::nullopt;
        return kq_gid_t{.eui64 = *eui64, .subnet = *subnet};
    }
    wire_gid_t wire;
    if (!parse_address(AF_INET6, text, wire.bytes)) return std::nullopt;
    return from_wire(wire);
}

std::string format_gid(const kq_gid_t& gid)
{
    return records::gid_text(gid);
}

std::string format_gid6(const kq_gid_t& gid)
{
    char text[INET6_ADDRSTRLEN];
    const wire_gid_t wire = to_wire(gid);
    return inet_ntop(AF_INET6, wire.bytes, text, sizeof text);
}

} // namespace world
