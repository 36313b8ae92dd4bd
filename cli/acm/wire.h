// The messages between a program that uses librdmacm and the daemon that it asks for paths (ibacm's protocol). A
// resolve message asks for a path: a resolve_header, followed by entries. A query asks for counters or for an endpoint
// (an HCA): a query_header. In its answer, counters, or an endpoint_config and addresses, follow the query_header.
//
// Byte order: the numbers in a resolve_header, and `flags` and `type` of an entry, are in host order. The content of an
// entry and the numbers in a query are in network order.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ib-types.h"

namespace acm
{

constexpr uint8_t protocol_version = 1;

enum opcode : uint8_t {
    opcode_resolve = 1,
    opcode_counters = 2,
    opcode_endpoint = 3,
    opcode_answer = 0x80, // a bit that an answer has in addition to the opcode of its request
};

enum class status : uint8_t {
    success = 0,
    no_memory = 1,
    invalid = 2,
    no_data = 3, // there is no such path; librdmacm continues without it
    not_connected = 5,
    timed_out = 6,
    unknown_source = 7,
    wrong_source_type = 8,
    wrong_destination = 9,
    wrong_destination_type = 10,
};

struct resolve_header {
    uint8_t version;
    uint8_t opcode;
    uint8_t status;
    uint8_t reserved[3];
    uint16_t length; // bytes of the whole message, with the header
    uint64_t tid;    // transaction ID; the answer has the same ID
};
static_assert(sizeof(resolve_header) == 16 && offsetof(resolve_header, length) == 6);
static_assert(offsetof(resolve_header, tid) == 8);

struct query_header {
    uint8_t version;
    uint8_t opcode;
    uint8_t status;
    uint8_t number; // in a request for an endpoint: its number; in the answer with counters: how many counters follow
    uint8_t index;  // in a request for an endpoint: the port; in a request for counters: the endpoint, or 0 for all
    uint8_t reserved;
    be16_t length; // bytes of the whole message, with the header
    be64_t tid;    // transaction ID; the answer has the same ID
};
static_assert(sizeof(query_header) == 16 && offsetof(query_header, number) == 3);
static_assert(offsetof(query_header, length) == 6 && offsetof(query_header, tid) == 8);

// Values of entry::type.
constexpr uint16_t type_name = 1;
constexpr uint16_t type_ipv4 = 2;
constexpr uint16_t type_ipv6 = 3;
constexpr uint16_t type_path = 0x10;

// Values of entry::flags in a request.
constexpr uint32_t flag_source = 1 << 0;
constexpr uint32_t flag_destination = 1 << 1;
constexpr uint32_t flag_no_delay = 1U << 30; // answer only from the cache
constexpr uint32_t flag_query_sa = 1U << 31; // ask the SA even if the cache has an answer

// Values of entry::flags in an answer, for a path.
constexpr uint32_t path_flag_gmp = 1 << 0;
constexpr uint32_t path_flag_primary = 1 << 1;
constexpr uint32_t path_flag_outbound = 1 << 3;
constexpr uint32_t path_flag_inbound_reverse = 1 << 5;

constexpr size_t address_size = 64; // bytes

struct entry {
    uint32_t flags;
    uint16_t type;
    uint16_t reserved;
    uint8_t content[address_size]; // a name, an address or a path_record
};
static_assert(sizeof(entry) == 72 && offsetof(entry, type) == 4 && offsetof(entry, content) == 8);

// A PathRecord (IBA 15.2.5.16), as the SA sends it.
struct path_record {
    be64_t service_id;
    wire_gid_t dgid;
    wire_gid_t sgid;
    be16_t dlid;
    be16_t slid;
    be32_t flow_label_hop_limit; // reserved (4 bits), flow label (20), hop limit (8)
    uint8_t traffic_class;
    uint8_t reversible_path_count; // Reversible (1 bit), NumbPath (7)
    be16_t p_key;
    be16_t qos_class_sl; // QosClass (12 bits), SL (4)
    uint8_t mtu;         // `mtu`, `rate` and `packet_lifetime` each have a selector (2 bits) and a value (6)
    uint8_t rate;
    uint8_t packet_lifetime;
    uint8_t preference;
    uint8_t reserved[6];
};
static_assert(sizeof(path_record) == address_size);
static_assert(offsetof(path_record, dgid) == 8 && offsetof(path_record, sgid) == 24);
static_assert(offsetof(path_record, dlid) == 40 && offsetof(path_record, slid) == 42);
static_assert(offsetof(path_record, flow_label_hop_limit) == 44 && offsetof(path_record, traffic_class) == 48);
static_assert(offsetof(path_record, p_key) == 50 && offsetof(path_record, qos_class_sl) == 52);
static_assert(offsetof(path_record, mtu) == 54 && offsetof(path_record, packet_lifetime) == 56);

// In the answer about an endpoint, this record follows the header. Then follow `address_count` addresses, each of
// address_size bytes.
struct endpoint_config {
    be64_t device_guid;
    uint8_t port;
    uint8_t port_count; // number of ports of the HCA
    uint8_t reserved[2];
    be16_t p_key;
    be16_t address_count;
    uint8_t provider[64];
};
static_assert(sizeof(endpoint_config) == 80 && offsetof(endpoint_config, p_key) == 12);
static_assert(offsetof(endpoint_config, address_count) == 14 && offsetof(endpoint_config, provider) == 16);

constexpr size_t most_entries = 8;
constexpr size_t longest_message = sizeof(resolve_header) + most_entries * sizeof(entry); // bytes

} // namespace acm
