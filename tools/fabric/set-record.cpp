// A second client of the SA, for example for an administrator. It registers or deletes one record of the service. It
// only uses libibumad.
//   set-record GID P_KEY ADDRESS NAME      SubnAdmSet
//   set-record -d GID P_KEY                SubnAdmDelete, by record identifier
// Prints the status of the answer in hex. The exit code is 0 if the status is 0.
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/fabric/umad/libibumad.h"
#include "records/host-record.h"
#include "sa-mads.h"

namespace
{

constexpr int answer_wait_ms = 1000;
constexpr int tries = 5; // OpenSM drops requests while it is busy
constexpr uint32_t transaction = 0x5E7;

// ServiceID, ServiceGID and ServiceName. OpenSM compares the P_Key even without its mask bit. With that bit, it refuses
// the request if the port of the GID is gone.
constexpr uint64_t identifier_mask = 0x43;

[[noreturn]] void fail(const char* reason)
{
    std::fprintf(stderr, "set-record: %s\n", reason);
    std::exit(2);
}

// Reads "fe80::1", or "0x" and 32 digits.
bool parse_gid(const char* text, wire_gid_t& gid)
{
    if (inet_pton(AF_INET6, text, &gid) == 1) return true;
    if (std::strlen(text) != 2 + 2 * sizeof gid) return false;
    for (size_t i = 0; i < sizeof gid; ++i)
        if (std::sscanf(text + 2 + 2 * i, "%2hhx", &gid.bytes[i]) != 1) return false;
    return true;
}

sa_mad_v2_t make_request(bool remove, char** arguments)
{
    records::host_record host;
    wire_gid_t gid;
    if (!parse_gid(arguments[0], gid)) fail("the GID is malformed");
    host.gid = from_wire(gid);
    host.p_key = static_cast<uint16_t>(std::strtoul(arguments[1], nullptr, 0));
    if (!remove) {
        if (inet_pton(AF_INET, arguments[2], &host.address) != 1) fail("the address is malformed");
        host.host_name = arguments[3];
    }
    const ib_service_record_v2_t record = records::encode(host);

    sa_mad_v2_t mad{};
    mad.hdr.base_ver = MAD_BASE_VERSION;
    mad.hdr.mgt_class = MAD_CLASS_SUBN_ADM;
    mad.hdr.class_ver = MAD_CLASS_VERSION_SUBN_ADM;
    mad.hdr.m.method = remove ? MAD_METHOD_DELETE : MAD_METHOD_SET;
    mad.hdr.transact_id = to_wire(uint64_t{transaction});
    mad.hdr.attrib_id = htons(SA_ATTR_SERVICE_RECORD);
    mad.component_mask = to_wire(remove ? identifier_mask : UINT64_MAX);
    std::memcpy(mad.payload, &record, sizeof record);
    return mad;
}

} // namespace

int main(int count, char** arguments)
{
    const bool remove = count == 4 && std::strcmp(arguments[1], "-d") == 0;
    if (!remove && count != 5) fail("expected GID P_KEY ADDRESS NAME, or -d GID P_KEY");
    const sa_mad_v2_t request = make_request(remove, arguments + (remove ? 2 : 1));

    umad_port_t port;
    if (umad_init() < 0 || umad_get_port(nullptr, 0, &port) < 0) fail("there is no active InfiniBand port");
    umad_release_port(&port); // frees only its P_Keys; the other fields do not change
    const int descriptor = umad_open_port(port.ca_name, port.portnum);
    if (descriptor < 0) fail("cannot open the port");
    const int agent = umad_register(descriptor, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, 0, nullptr);
    if (agent < 0) fail("cannot register the SA class");

    alignas(8) char buffer[sizeof(ib_user_mad_t) + MAD_SIZE];
    for (int i = 0; i < tries; ++i) {
        std::memset(buffer, 0, sizeof buffer);
        umad_set_addr(buffer, static_cast<int>(port.sm_lid), 1, static_cast<int>(port.sm_sl),
                      static_cast<int>(0x80010000));
        std::memcpy(umad_get_mad(buffer), &request, sizeof request);
        if (umad_send(descriptor, agent, buffer, MAD_SIZE, answer_wait_ms, 0) < 0) fail("the request was not sent");
        int length = MAD_SIZE;
        if (umad_recv(descriptor, buffer, &length, answer_wait_ms) < 0 || umad_status(buffer) != 0) continue;
        sa_mad_v2_t answer;
        std::memcpy(&answer, umad_get_mad(buffer), sizeof answer);
        if (static_cast<uint32_t>(from_wire(answer.hdr.transact_id)) != transaction) continue;
        const unsigned status = from_wire(answer.hdr.u.ns.status.raw16);
        std::printf("0x%04X\n", status);
        return status == 0 ? 0 : 1;
    }
    fail("the SA does not answer");
}
