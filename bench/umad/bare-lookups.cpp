// The yardstick for lookups on a real fabric: nothing but libibumad and the SA, one thread, a window of requests in
// flight, every answer at once replaced by a new request.
//   bare-lookups ADDRESS [LOOKUPS [WINDOW]]
// Looks the ATS record of ADDRESS up LOOKUPS times and prints the lookups per second.
#include <arpa/inet.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "host/fabric/umad/libibumad.h"
#include "records/host-record.h"
#include "sa-mads.h"

namespace
{

constexpr int patience_ms = 500; // then what is in flight counts as lost and is sent again

struct umad_buffer {
    ib_user_mad_t header;
    sa_mad_v2_t mad;
};

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "bare-lookups: %s\n", what);
    std::exit(2);
}

void prepare(umad_buffer& request, const umad_port_t& port, const char* address)
{
    std::memset(&request, 0, sizeof request);
    umad_set_addr(&request, static_cast<int>(port.sm_lid), 1, static_cast<int>(port.sm_sl),
                  static_cast<int>(0x80010000));
    ib_service_record_v2_t record{};
    record.service_id = to_wire(records::service_id);
    std::strcpy(record.service_name, records::service_name);
    if (inet_pton(AF_INET, address, record.service_data8 + records::address_offset) != 1)
        fail("expected an IPv4 address");
    sa_mad_v2_t& mad = request.mad;
    mad.hdr.base_ver = MAD_BASE_VERSION;
    mad.hdr.mgt_class = MAD_CLASS_SUBN_ADM;
    mad.hdr.class_ver = MAD_CLASS_VERSION_SUBN_ADM;
    mad.hdr.m.method = MAD_METHOD_GET;
    mad.hdr.attrib_id = htons(SA_ATTR_SERVICE_RECORD);
    mad.component_mask = to_wire(uint64_t{0x7FFFC1});
    std::memcpy(mad.payload, &record, sizeof record);
}

struct lookups {
    int port = -1, agent = -1;
    umad_buffer request;
    uint32_t sent = 0;
    std::vector<uint32_t> in_flight; // transactions; 0: the slot is free
    long found = 0, refused = 0, lost = 0;

    void send(uint32_t& slot)
    {
        slot = ++sent;
        request.mad.hdr.transact_id = to_wire(uint64_t{slot});
        if (umad_send(port, agent, &request, MAD_SIZE, patience_ms, 0) < 0) fail("a request was not sent");
    }

    // Returns false when nothing came.
    bool receive(umad_buffer& answer)
    {
        int length = MAD_SIZE;
        return umad_recv(port, &answer, &length, patience_ms) >= 0;
    }

    void count(const umad_buffer& answer)
    {
        if (umad_status(const_cast<umad_buffer*>(&answer)) != 0)
            ++lost;
        else if (from_wire(answer.mad.hdr.u.ns.status.raw16) != 0)
            ++refused;
        else
            ++found;
    }

    // Runs until `wanted` are answered and nothing is in flight any more: a process that ends under ibsim while
    // answers still come in hangs.
    void run(long wanted)
    {
        for (uint32_t& slot : in_flight) send(slot);
        umad_buffer answer;
        for (size_t busy = in_flight.size(); busy > 0;) {
            if (!receive(answer)) {
                lost += static_cast<long>(busy);
                for (uint32_t& slot : in_flight)
                    if (slot != 0) send(slot);
                continue;
            }
            const auto transaction = static_cast<uint32_t>(from_wire(answer.mad.hdr.transact_id));
            for (uint32_t& slot : in_flight) {
                if (slot != transaction) continue;
                count(answer);
                if (found + refused + static_cast<long>(busy) <= wanted) {
                    send(slot);
                } else {
                    slot = 0;
                    --busy;
                }
                break;
            }
        }
    }
};

} // namespace

int main(int count, char** arguments)
{
    if (count < 2) fail("expected ADDRESS [LOOKUPS [WINDOW]]");
    const long wanted = count > 2 ? std::atol(arguments[2]) : 100000;
    const long window = count > 3 ? std::atol(arguments[3]) : 16;
    if (wanted < 1 || window < 1 || window > 1024) fail("expected at least 1 lookup, and a window of 1 to 1024");

    umad_port_t port;
    if (umad_init() < 0 || umad_get_port(nullptr, 0, &port) < 0) fail("there is no active InfiniBand port");
    umad_release_port(&port); // only its P_Keys go
    lookups made;
    made.port = umad_open_port(port.ca_name, port.portnum);
    if (made.port < 0 || umad_size() != sizeof(ib_user_mad_t)) fail("cannot open the port");
    made.agent = umad_register(made.port, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, 0, nullptr);
    if (made.agent < 0) fail("cannot register the SA class");
    prepare(made.request, port, arguments[1]);
    made.in_flight.resize(static_cast<size_t>(window));

    const auto begin = std::chrono::steady_clock::now();
    made.run(wanted);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::printf("%.0f lookups/s (%ld found nothing, %ld lost)\n",
                static_cast<double>(made.found + made.refused) / took.count(), made.refused, made.lost);
}
