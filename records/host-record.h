// The ServiceRecord with which a host registers its name and address at the Subnet Administrator (IBA 15.2.5.14). The
// records of all hosts have the same service ID and service name. The functions here encode and decode records, and
// format their fields. All functions are pure and may be called in any context.
#pragma once

#include <cstdint>
#include <string>

#include "ib-types.h"
#include "sa-mads.h"

namespace records
{

constexpr uint64_t service_id = 0x10000CE100415453; // ends in the letters A, T, S
constexpr char service_name[] = "DAPL Address Translation Service";

constexpr uint32_t infinite_lease = UINT32_MAX;

// The IPv4 address is in the last four bytes of ServiceData8.
constexpr size_t address_offset = sizeof ib_service_record_v2_t::service_data8 - sizeof(uint32_t);

// The host name begins in ServiceData32 and continues in ServiceData64. If it is shorter than 30 bytes, zero bytes
// follow.
constexpr size_t host_name_size = 30;

struct host_record {
    kq_gid_t gid{};
    uint16_t p_key = 0;
    uint32_t address = 0;  // network order
    std::string host_name; // the bytes of the record up to the first zero byte; at most host_name_size
};

// Returns true if the record has the service ID of this service.
bool is_host_record(const ib_service_record_v2_t& record);

// Decodes a record. The result has a meaning only if is_host_record() returns true.
host_record decode(const ib_service_record_v2_t& record);

// Encodes the record that a host registers, with an infinite lease. Cuts a name that is too long.
ib_service_record_v2_t encode(const host_record& host);

// Formats a GID as "0x" and 32 hexadecimal digits.
std::string gid_text(const kq_gid_t& gid);

// Formats a lease for people: "infinite" or "20 s".
std::string lease_text(uint32_t seconds);

// Formats a status word of the SA and its meaning (IBA 13.4.7, 15.2.4), for example "0x0300 (it holds no such record)".
std::string status_text(uint16_t word);

} // namespace records
