// Encodes the requests about ServiceRecords (Set, Delete, and Get by address or by GID), decodes the replies, and logs
// both.
#include "ats-sa.h"

#include <cassert>
#include <cstring>

namespace
{

// Fixed values in every record of this service. The records library has the same values for the programs outside of the
// module, because the module is a separate image.
constexpr char service_name[] = "DAPL Address Translation Service";
constexpr uint8_t service_data16_marker[] = {0x5C, 0x27};
constexpr uint32_t infinite_lease = 0xFFFFFFFF;

// Fixed values of every request.
constexpr uint32_t payload_length = 0xF0; // RMPP PayloadLength
constexpr uint32_t sa_qp = 1;

// The component masks of the requests (IBA 15.2.5.14). A Set has all 64 bits, also the bits that name no component.
constexpr uint64_t mask_of_set = UINT64_MAX;
constexpr uint64_t mask_by_gid =
    1 << SR_COMPONENT_SERVICE_ID | 1 << SR_COMPONENT_SERVICE_GID | 1 << SR_COMPONENT_SERVICE_NAME;
constexpr uint64_t mask_by_address =
    1 << SR_COMPONENT_SERVICE_ID | 1 << SR_COMPONENT_SERVICE_NAME | 0xFFFF << SR_COMPONENT_SERVICE_DATA8;
static_assert(mask_by_gid == 0x43 && mask_by_address == 0x7FFFC1);

// The address is in the last four bytes of ServiceData8.
constexpr size_t address_offset = sizeof ib_service_record_v2_t::service_data8 - sizeof(uint32_t);

// The host name begins in ServiceData32. ServiceData64 has the rest, from this offset of the name on.
constexpr size_t name_split = sizeof ib_service_record_v2_t::service_data32;

// Converts a number of `Size` bytes (8 or 16) between wire order and host order. `dest` and `src` may be the same.
void ntoh(void* dest, const void* src, uint8_t Size)
{
    uint64_t first, last;
    memcpy(&first, src, sizeof first);
    memcpy(&last, static_cast<const uint8_t*>(src) + Size - sizeof last, sizeof last);
    first = __builtin_bswap64(first);
    last = __builtin_bswap64(last);
    memcpy(dest, &last, sizeof last);
    memcpy(static_cast<uint8_t*>(dest) + Size - sizeof first, &first, sizeof first);
}

ib_service_record_v2_t& service_record_of(sa_mad_v2_t& mad)
{
    return *reinterpret_cast<ib_service_record_v2_t*>(mad.payload);
}

void fill_set(ib_service_record_v2_t& record, const ats_context_t* ats, const ats_port_ctx_t* port)
{
    const kq_gid_t gid = port->port_gid.load();
    const uint32_t ipaddr = port->port_ipaddr;
    const ats_host_name_t name = ats->host_name.load();
    ntoh(&record.service_gid, &gid, sizeof gid);
    record.service_pkey = to_wire(uint16_t{port->port_pkey});
    record.service_lease = to_wire(infinite_lease);
    memcpy(record.service_data8 + address_offset, &ipaddr, sizeof ipaddr);
    memcpy(record.service_data16, service_data16_marker, sizeof service_data16_marker);
    memcpy(record.service_data32, name.text, name_split);
    memcpy(record.service_data64, name.text + name_split, ATS_HOST_NAME_SIZE - name_split);
}

void fill_gid(ib_service_record_v2_t& record, const kq_gid_t& gid)
{
    ntoh(&record.service_gid, &gid, sizeof gid);
}

// Addresses the datagram to QP1 at the SM's LID, where the SA is. `rqk` 0 makes the GSI layer use the Q_Key of QP1. The
// pool has set the P_Key index.
void address_to_sa(gsi_dtgrm_t* dtgrm, const ats_port_ctx_t* port)
{
    const kq_sm_address_info_t sm = port->port_attrib.load().port_sma_address_info;
    dtgrm->rlid = sm.sm_lid;
    dtgrm->sl = sm.service_level;
    dtgrm->rqp = sa_qp;
    dtgrm->rqk = 0;
    dtgrm->guid = 0;
    dtgrm->path_bits = 0;
    dtgrm->static_rate = 0;
}

struct quarters_t { // a 16-byte field as four numbers, in the host's byte order
    uint32_t number[4];
};

quarters_t quarters_of(const uint8_t (&field)[16])
{
    quarters_t quarters;
    memcpy(&quarters, field, sizeof quarters);
    return quarters;
}

struct halves_t { // a 16-byte field as two numbers, in the host's byte order
    uint64_t number[2];
};

halves_t halves_of(const uint8_t (&field)[16])
{
    halves_t halves;
    memcpy(&halves, field, sizeof halves);
    return halves;
}

bool is_other_sa_attribute(uint16_t attrib_id)
{
    switch (attrib_id) {
    case SA_ATTR_NOTICE:
    case SA_ATTR_INFORM_INFO:
    case SA_ATTR_NODE_RECORD:
    case SA_ATTR_PORT_INFO_RECORD:
    case SA_ATTR_PATH_RECORD:
    case SA_ATTR_MC_MEMBER_RECORD:
    case SA_ATTR_MULTI_PATH_RECORD:
        return true;
    default:
        return false;
    }
}

} // namespace

void ats_sa_encode_mad(gsi_dtgrm_t* dtgrm, const ats_context_t* ats, const ats_port_ctx_t* port, ats_sa_op_t op,
                       const ibat_arp_data_t* arp_data, uint8_t is_set, uint8_t is_get, uint8_t is_table)
{
    assert(is_set || !is_get || arp_data); // a Get needs a query
    memset(dtgrm->mad, 0, sizeof dtgrm->mad);
    address_to_sa(dtgrm, port);

    sa_mad_v2_t& mad = sa_mad_of(dtgrm);
    mad.hdr.base_ver = MAD_BASE_VERSION;
    mad.hdr.mgt_class = MAD_CLASS_SUBN_ADM;
    mad.hdr.class_ver = MAD_CLASS_VERSION_SUBN_ADM;
    mad.hdr.attrib_id = SA_ATTR_SERVICE_RECORD;
    mad.payload_len = to_wire(payload_length);

    ib_service_record_v2_t& record = service_record_of(mad);
    ntoh(&record.service_id, &ats->service_id, sizeof ats->service_id);
    memcpy(record.service_name, service_name, sizeof service_name);
    uint64_t component_mask = mask_by_gid;
    if (is_set) {
        mad.hdr.m.method = MAD_METHOD_SET;
        component_mask = mask_of_set;
        fill_set(record, ats, port);
    } else if (!is_get) {
        mad.hdr.m.method = MAD_METHOD_DELETE;
        fill_gid(record, ats->sm_registered_gid.load());
    } else {
        mad.hdr.m.method = is_table ? MAD_METHOD_GET_TABLE : MAD_METHOD_GET;
        if (op == ATS_GET_SR_ARP_OP) {
            component_mask = mask_by_address;
            memcpy(record.service_data8 + address_offset, &arp_data->dst_ip, sizeof arp_data->dst_ip);
        } else {
            fill_gid(record, arp_data->gid);
        }
    }
    ntoh(&mad.component_mask, &component_mask, sizeof component_mask);
}

int32_t ats_sa_encode_service_rec_set_get_del_mad(const ats_context_t* ats, const ats_port_ctx_t* port, ats_sa_op_t op,
                                                  const ibat_arp_data_t* arp_data, uint8_t is_set, uint8_t is_get,
                                                  uint8_t is_table, gsi_dtgrm_t** dt)
{
    if (const int result = gsi_dtgrm_pool_get(ats->pool_handle, dt); result != 0) {
        ATS_ERROR("gsi_dtgrm_pool_get() failed <%d>\n", result);
        return -1;
    }
    ats_sa_encode_mad(*dt, ats, port, op, arp_data, is_set, is_get, is_table);
    return 0;
}

void ats_sa_dump_service_record_mad(mad_t* sa_mad)
{
    ib_service_record_v2_t& record = service_record_of(*reinterpret_cast<sa_mad_v2_t*>(sa_mad));
    record.service_name[sizeof record.service_name - 1] = '\0';
    if (!zr_is_traced(ZR_FUNC, ATS_trace_level)) return;

    uint64_t service_id;
    kq_gid_t gid;
    ntoh(&service_id, &record.service_id, sizeof service_id);
    ntoh(&gid, &record.service_gid, sizeof gid);
    ATS_FUNC("================================================================\n");
    ATS_FUNC("service id   : 0x%016LX\n", static_cast<unsigned long long>(service_id));
    ATS_FUNC("service gid  : " KQ_GID_FORMAT "\n", KQ_GID_ARGS(gid));
    ATS_FUNC("service pkey : 0x%X\n", from_wire(record.service_pkey));
    ATS_FUNC("service lease: 0x%X\n", from_wire(record.service_lease));
    ATS_FUNC("service_name : %s\n", record.service_name);
    const quarters_t data8 = quarters_of(record.service_data8);
    const quarters_t data16 = quarters_of(record.service_data16);
    const quarters_t data32 = quarters_of(record.service_data32);
    const halves_t data64 = halves_of(record.service_data64);
    ATS_FUNC("service_data8 : %#.8x %.8x %.8x %.8x\n", data8.number[0], data8.number[1], data8.number[2],
             data8.number[3]);
    ATS_FUNC("service_data16: %#.8x %.8x %.8x %.8x\n", data16.number[0], data16.number[1], data16.number[2],
             data16.number[3]);
    ATS_FUNC("service_data32: %#.8x %.8x %.8x %.8x\n", data32.number[0], data32.number[1], data32.number[2],
             data32.number[3]);
    ATS_FUNC("service_data64: %#.16Lx  %.16Lx \n", static_cast<unsigned long long>(data64.number[0]),
             static_cast<unsigned long long>(data64.number[1]));
    ATS_FUNC("service_data32 string %c%c%c%c\n", data32.number[0], data32.number[1], data32.number[2],
             data32.number[3]);
    ATS_FUNC("================================================================\n");
}

int32_t ats_sa_gsi_decode_recv_dtgrm(const ats_port_ctx_t* ats_port, gsi_dtgrm_t* dtgrm)
{
    sa_mad_v2_t& mad = sa_mad_of(dtgrm);
    const uint16_t attrib_id = mad.hdr.attrib_id;
    if (mad.hdr.base_ver != MAD_BASE_VERSION || mad.hdr.mgt_class != MAD_CLASS_SUBN_ADM ||
        mad.hdr.class_ver != MAD_CLASS_VERSION_SUBN_ADM)
        ATS_WARNING("Invalid base version, mgmt class or class version\n");
    if (is_other_sa_attribute(attrib_id)) {
        ATS_ERROR("ATS - unexpected attribute ID. <0x%04X>\n", attrib_id);
        return -1;
    }
    if (attrib_id != SA_ATTR_SERVICE_RECORD) {
        ATS_ERROR("ATS - Unrequested/unsupported attribute ID. <0x%04X>\n", attrib_id);
        return -1;
    }
    unsigned long long transact_id; // logged in the byte order of the datagram
    memcpy(&transact_id, &mad.hdr.transact_id, sizeof transact_id);
    ATS_DEBUG(" ServiceRecord reply MAD received, transaction-id 0x%016LX\n", transact_id);
    ats_sa_dump_service_record_mad(reinterpret_cast<mad_t*>(dtgrm->mad));

    const ib_service_record_v2_t& record = service_record_of(mad);
    ibat_arp_data_t& reply = ats_port->ats_context->rcv_arp_data;
    reply.mask |= IBAT_MASK_GID;
    ntoh(&reply.gid, &record.service_gid, sizeof reply.gid);

    // With common status bits, the SA did not process the request. A class-specific code, for example "no records", is
    // a valid answer, so it is no error here. The caller evaluates it.
    const uint16_t status = from_wire(mad.hdr.u.ns.status.raw16);
    if ((status & MAD_STATUS_COMMON_BITS) != 0) {
        ATS_ERROR("ATS - Incoming mad has an error status <0x%04X> .\n", status);
        return -1;
    }
    ATS_DEBUG(" Incoming mad has status SUCCESS.\n");

    const uint32_t own_ip = ats_port->port_ipaddr;
    reply.mask |= IBAT_MASK_SRC_IP | IBAT_MASK_DST_IP | IBAT_MASK_LOCAL_PORT_NUM;
    reply.local_port_num = static_cast<uint32_t>(ats_port->port_num);
    reply.src_ip = own_ip;
    memcpy(&reply.dst_ip, record.service_data8 + address_offset, sizeof reply.dst_ip);
    if (reply.dst_ip == own_ip) {
        ATS_DEBUG(" arp reply for local ip addr %d.%d.%d.%d setting it to be static !\n", ATS_IP_ARGS(reply.dst_ip));
        reply.mask |= IBAT_MASK_STATIC;
    }
    return 0;
}
