// The datagrams of Subnet Administration (IBA volume 1, 15.2), and the two records in their payload that this stack
// uses: ServiceRecord (15.2.5.14) and PathRecord (15.2.5.16).
#pragma once

#include "mad.h"

// Attribute identifiers, IBA 15.2.5.
constexpr uint16_t SA_ATTR_NOTICE = 0x0002;
constexpr uint16_t SA_ATTR_INFORM_INFO = 0x0003;
constexpr uint16_t SA_ATTR_NODE_RECORD = 0x0011;
constexpr uint16_t SA_ATTR_PORT_INFO_RECORD = 0x0012;
constexpr uint16_t SA_ATTR_SERVICE_RECORD = 0x0031;
constexpr uint16_t SA_ATTR_PATH_RECORD = 0x0035;
constexpr uint16_t SA_ATTR_MC_MEMBER_RECORD = 0x0038;
constexpr uint16_t SA_ATTR_MULTI_PATH_RECORD = 0x003A;

// Class-specific status codes (IBA 15.2.4): the high byte of the status word.
enum sa_status_t : uint8_t {
    SA_STATUS_SUCCESS = 0,
    SA_STATUS_NO_RESOURCES = 1,
    SA_STATUS_REQ_INVALID = 2,
    SA_STATUS_NO_RECORDS = 3,
    SA_STATUS_TOO_MANY_RECORDS = 4,
    SA_STATUS_REQ_INVALID_GID = 5,
    SA_STATUS_REQ_INSUFFICIENT_COMPONENTS = 6,
};

// Returns a status word in host order with this class-specific code and no common status bits.
constexpr uint16_t status_word(sa_status_t code)
{
    return static_cast<uint16_t>(code << 8);
}

struct sa_mad_v2_t {
    mad_hdr_t hdr;
    uint8_t rmpp_version;
    uint8_t rmpp_type;
    uint8_t rmpp_flags;
    uint8_t rmpp_status;
    be32_t segment_num;
    be32_t payload_len;
    be64_t sm_key;
    be16_t attr_offset;
    be16_t reserved;
    be64_t component_mask;
    uint8_t payload[200];
};
static_assert(sizeof(sa_mad_v2_t) == MAD_SIZE);
static_assert(offsetof(sa_mad_v2_t, rmpp_version) == 24 && offsetof(sa_mad_v2_t, rmpp_type) == 25);
static_assert(offsetof(sa_mad_v2_t, rmpp_flags) == 26 && offsetof(sa_mad_v2_t, rmpp_status) == 27);
static_assert(offsetof(sa_mad_v2_t, segment_num) == 28 && offsetof(sa_mad_v2_t, payload_len) == 32);
static_assert(offsetof(sa_mad_v2_t, sm_key) == 36 && offsetof(sa_mad_v2_t, attr_offset) == 44);
static_assert(offsetof(sa_mad_v2_t, reserved) == 46 && offsetof(sa_mad_v2_t, component_mask) == 48);
static_assert(offsetof(sa_mad_v2_t, payload) == 56);

struct ib_service_record_v2_t {
    be64_t service_id;
    wire_gid_t service_gid;
    be16_t service_pkey;
    be16_t reserved1;
    be32_t service_lease; // seconds; 0xFFFFFFFF means that the record does not expire
    uint8_t service_key[16];
    char service_name[64];
    uint8_t service_data8[16];
    uint8_t service_data16[16];
    uint8_t service_data32[16];
    uint8_t service_data64[16];
};
static_assert(sizeof(ib_service_record_v2_t) == 176);
static_assert(offsetof(ib_service_record_v2_t, service_id) == 0);
static_assert(offsetof(ib_service_record_v2_t, service_gid) == 8);
static_assert(offsetof(ib_service_record_v2_t, service_pkey) == 24);
static_assert(offsetof(ib_service_record_v2_t, reserved1) == 26);
static_assert(offsetof(ib_service_record_v2_t, service_lease) == 28);
static_assert(offsetof(ib_service_record_v2_t, service_key) == 32);
static_assert(offsetof(ib_service_record_v2_t, service_name) == 48);
static_assert(offsetof(ib_service_record_v2_t, service_data8) == 112);
static_assert(offsetof(ib_service_record_v2_t, service_data16) == 128);
static_assert(offsetof(ib_service_record_v2_t, service_data32) == 144);
static_assert(offsetof(ib_service_record_v2_t, service_data64) == 160);
static_assert(sizeof(ib_service_record_v2_t) <= sizeof(sa_mad_v2_t::payload));

// Component mask bits of a ServiceRecord query (IBA 15.2.5.14), as bit numbers.
enum service_record_component_t : int {
    SR_COMPONENT_SERVICE_ID = 0,
    SR_COMPONENT_SERVICE_GID = 1,
    SR_COMPONENT_SERVICE_P_KEY = 2,
    SR_COMPONENT_RESERVED = 3,
    SR_COMPONENT_SERVICE_LEASE = 4,
    SR_COMPONENT_SERVICE_KEY = 5,
    SR_COMPONENT_SERVICE_NAME = 6,
    SR_COMPONENT_SERVICE_DATA8 = 7,   // first of 16 bits, one for each byte
    SR_COMPONENT_SERVICE_DATA16 = 23, // first of 8 bits, one for each 16-bit number
    SR_COMPONENT_SERVICE_DATA32 = 31, // first of 4 bits
    SR_COMPONENT_SERVICE_DATA64 = 35, // first of 2 bits
    SR_COMPONENT_COUNT = 37,
};

// A PathRecord on the wire (IBA 15.2.5.16).
struct ib_path_record_wire_t {
    be64_t service_id;
    wire_gid_t dgid;
    wire_gid_t sgid;
    be16_t dlid;
    be16_t slid;
    be32_t route; // from the most significant bit: raw traffic (1 bit), reserved (3), flow label (20), hop limit (8)
    uint8_t traffic_class;
    uint8_t reversible_numb_path; // Reversible (1 bit) and NumbPath (7)
    be16_t p_key;
    be16_t qos_class_sl; // QosClass (12 bits) and SL (4)
    uint8_t mtu;         // `mtu`, `rate` and `packet_lifetime` each have a selector (2 bits) and a value (6)
    uint8_t rate;
    uint8_t packet_lifetime;
    uint8_t preference;
    uint8_t reserved[6];
};
static_assert(sizeof(ib_path_record_wire_t) == 64);
static_assert(offsetof(ib_path_record_wire_t, dgid) == 8 && offsetof(ib_path_record_wire_t, sgid) == 24);
static_assert(offsetof(ib_path_record_wire_t, dlid) == 40 && offsetof(ib_path_record_wire_t, slid) == 42);
static_assert(offsetof(ib_path_record_wire_t, route) == 44 && offsetof(ib_path_record_wire_t, traffic_class) == 48);
static_assert(offsetof(ib_path_record_wire_t, p_key) == 50 && offsetof(ib_path_record_wire_t, qos_class_sl) == 52);
static_assert(offsetof(ib_path_record_wire_t, mtu) == 54 && offsetof(ib_path_record_wire_t, preference) == 57);

// Component mask bits of a PathRecord query (IBA 15.2.5.16), as bit numbers.
enum path_record_component_t : int {
    PR_COMPONENT_DGID = 2,
    PR_COMPONENT_SGID = 3,
    PR_COMPONENT_DLID = 4,
    PR_COMPONENT_SLID = 5,
    PR_COMPONENT_RAW_TRAFFIC = 6,
    PR_COMPONENT_FLOW_LABEL = 8,
    PR_COMPONENT_HOP_LIMIT = 9,
    PR_COMPONENT_TRAFFIC_CLASS = 10,
    PR_COMPONENT_REVERSIBLE = 11,
    PR_COMPONENT_NUMB_PATH = 12,
    PR_COMPONENT_P_KEY = 13,
    PR_COMPONENT_QOS_CLASS = 14,
    PR_COMPONENT_SL = 15,
    PR_COMPONENT_MTU_SELECTOR = 16,
    PR_COMPONENT_MTU = 17,
    PR_COMPONENT_RATE_SELECTOR = 18,
    PR_COMPONENT_RATE = 19,
    PR_COMPONENT_PACKET_LIFETIME_SELECTOR = 20,
    PR_COMPONENT_PACKET_LIFETIME = 21,
};
