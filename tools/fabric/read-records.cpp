// Asks the SA for the ServiceRecord of the host with each GID. Sends one request for each GID, because ibsim cannot
// deliver an answer that contains several records.
//   read-records GID...
// Prints one line for each GID: "GID P_KEY ADDRESS NAME", "GID none" if the SA has no record, or "GID STATUS" for
// another error. Ends with exit code 2 if a GID is malformed, the port cannot be used or the SA does not answer.
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

#include "records/host-record.h"
#include "tools/fabric/sa-client.h"
#include "tools/fabric/sa-request.h"

namespace
{

constexpr uint64_t service_id_and_gid = 0x03; // component mask
constexpr uint16_t status_no_records = 0x0300;

void print(const ib_service_record_v2_t& record)
{
    const records::host_record host = records::decode(record);
    char address[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &host.address, address, sizeof address);
    std::printf("%s 0x%04X %s %s\n", records::gid_text(host.gid).c_str(), host.p_key, address, host.host_name.c_str());
}

} // namespace

int main(int count, char** arguments)
{
    fabric_tools::sa_client sa;
    for (int i = 1; i < count; ++i) {
        wire_gid_t gid;
        if (!fabric_tools::parse_gid(arguments[i], gid)) fabric_tools::fail("a GID is malformed");
        records::host_record host;
        host.gid = from_wire(gid);
        const auto answer = sa.ask(fabric_tools::make_request(MAD_METHOD_GET, SA_ATTR_SERVICE_RECORD,
                                                              service_id_and_gid, records::encode(host)));
        if (!answer) fabric_tools::fail("the SA does not answer");
        const uint16_t status = from_wire(answer->hdr.u.ns.status.raw16);
        ib_service_record_v2_t record;
        std::memcpy(&record, answer->payload, sizeof record);
        if (status == 0)
            print(record);
        else if (status == status_no_records)
            std::printf("%s none\n", arguments[i]);
        else
            std::printf("%s 0x%04X\n", arguments[i], status);
    }
    return 0;
}
