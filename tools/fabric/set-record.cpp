// Registers or deletes the ServiceRecord of one host. Talks to the SA without the service, for example for an
// administrator or a test.
//   set-record GID P_KEY ADDRESS NAME      SubnAdmSet
//   set-record -d GID P_KEY                SubnAdmDelete, by record identifier
// Prints the status of the answer in hex. The exit code is 0 if the status is 0, and 1 for another status. It is 2 if
// an argument is wrong, the port cannot be used or the SA does not answer.
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "records/host-record.h"
#include "tools/fabric/sa-client.h"
#include "tools/fabric/sa-request.h"

namespace
{

using fabric_tools::fail;

// The mask bits of ServiceID, ServiceGID and ServiceName. OpenSM compares the P_Key even without the mask bit of the
// P_Key. With this mask bit, OpenSM refuses the request if the port of the GID is gone.
constexpr uint64_t identifier_mask = 0x43;

sa_mad_v2_t request_of(bool removes, char** arguments)
{
    records::host_record host;
    wire_gid_t gid;
    if (!fabric_tools::parse_gid(arguments[0], gid)) fail("the GID is malformed");
    host.gid = from_wire(gid);
    host.p_key = static_cast<uint16_t>(std::strtoul(arguments[1], nullptr, 0));
    if (!removes) {
        if (inet_pton(AF_INET, arguments[2], &host.address) != 1) fail("the address is malformed");
        host.host_name = arguments[3];
    }
    return fabric_tools::make_request(removes ? MAD_METHOD_DELETE : MAD_METHOD_SET, SA_ATTR_SERVICE_RECORD,
                                      removes ? identifier_mask : UINT64_MAX, records::encode(host));
}

} // namespace

int main(int count, char** arguments)
{
    const bool removes = count == 4 && std::strcmp(arguments[1], "-d") == 0;
    if (!removes && count != 5) fail("expected GID P_KEY ADDRESS NAME, or -d GID P_KEY");
    const sa_mad_v2_t request = request_of(removes, arguments + (removes ? 2 : 1));
    const std::optional<sa_mad_v2_t> answer = fabric_tools::sa_client().ask(request);
    if (!answer) fail("the SA does not answer");
    const unsigned status = from_wire(answer->hdr.u.ns.status.raw16);
    std::printf("0x%04X\n", status);
    return status == 0 ? 0 : 1;
}
