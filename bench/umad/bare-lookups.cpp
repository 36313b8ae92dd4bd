// Measures lookups with libibumad only, in one thread. This program is the reference for ats-lookups. WINDOW requests
// are in flight: after each answer, the next request is sent at once.
//   bare-lookups ADDRESS [LOOKUPS [WINDOW [path]]]
// Looks up the record of ADDRESS, LOOKUPS times, and at least WINDOW times. Prints the lookups per second, the
// processor time per lookup, and the numbers of answers with an error status ("found nothing") and of lost requests.
// With "path", each lookup also asks for the path to the GID in the record.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/umad/bare-port.h"
#include "bench/umad/stopwatch.h"

namespace
{

constexpr int timeout_ms = 500; // a request without an answer for this time counts as lost; its lookup begins again

[[noreturn]] void fail(const char* reason)
{
    std::fprintf(stderr, "bare-lookups: %s\n", reason);
    std::exit(2);
}

void prepare(umad_buffer& request, const bare_port& port, const char* address)
{
    constexpr uint64_t address_lookup = 0x7FFFC1; // the component mask: ServiceID, ServiceName, ServiceData8
    records::host_record host;
    if (inet_pton(AF_INET, address, &host.address) != 1) fail("expected an IPv4 address");
    prepare_request(request, port, MAD_METHOD_GET, address_lookup, host);
}

// Turns `request` into a request for the path from the port to a GID.
void ask_for_path(umad_buffer& request, const umad_port_t& port, const wire_gid_t& destination)
{
    ib_path_record_wire_t path{};
    path.dgid = destination;
    path.sgid = to_wire(kq_gid_t{.eui64 = be64toh(port.port_guid), .subnet = be64toh(port.gid_prefix)});
    path.reversible_numb_path = 0x81;
    path.p_key = to_wire(uint16_t{0xFFFF});
    constexpr uint64_t path_query = 0x380C; // the component mask: both GIDs, Reversible, NumbPath, P_Key
    request.mad = fabric_tools::make_request(MAD_METHOD_GET, SA_ATTR_PATH_RECORD, path_query, path);
}

struct lookup_loop {
    int port = -1, agent = -1;
    umad_port_t port_attributes;
    bool asks_for_paths = false;
    umad_buffer request;
    uint32_t sent_count = 0;
    std::vector<uint32_t> in_flight; // a slot for each request in flight: its transaction, or 0 if the slot is free
    long found_count = 0, refused_count = 0, lost_count = 0;

    void send(uint32_t& slot) { send(slot, request); }

    void send(uint32_t& slot, umad_buffer& request)
    {
        slot = ++sent_count;
        request.mad.hdr.transact_id = to_wire(uint64_t{slot});
        if (umad_send(port, agent, &request, MAD_SIZE, timeout_ms, 0) < 0) fail("a request was not sent");
    }

    // Waits for an answer, or for the kernel's report that a request got none. Returns false after timeout_ms.
    bool receive(umad_buffer& answer)
    {
        int length = MAD_SIZE;
        return umad_recv(port, &answer, &length, timeout_ms) >= 0;
    }

    void count(const umad_buffer& answer)
    {
        if (umad_status(const_cast<umad_buffer*>(&answer)) != 0)
            ++lost_count;
        else if (from_wire(answer.mad.hdr.u.ns.status.raw16) != 0)
            ++refused_count;
        else
            ++found_count;
    }

    static bool has_record(const umad_buffer& answer)
    {
        return answer.mad.hdr.attrib_id == htons(SA_ATTR_SERVICE_RECORD) &&
               umad_status(const_cast<umad_buffer*>(&answer)) == 0 && from_wire(answer.mad.hdr.u.ns.status.raw16) == 0;
    }

    void send_path_request(uint32_t& slot, const umad_buffer& answer)
    {
        ib_service_record_v2_t record;
        std::memcpy(&record, answer.mad.payload, sizeof record);
        umad_buffer path_request = request;
        ask_for_path(path_request, port_attributes, record.service_gid);
        send(slot, path_request);
    }

    // Runs until at least `lookups` lookups are answered and nothing is in flight. Under ibsim, a process that ends
    // earlier hangs, because answers are still on their way to it.
    void run(long lookups)
    {
        for (uint32_t& slot : in_flight) send(slot);
        umad_buffer answer;
        for (size_t busy_slots = in_flight.size(); busy_slots > 0;) {
            if (!receive(answer)) {
                lost_count += static_cast<long>(busy_slots);
                for (uint32_t& slot : in_flight)
                    if (slot != 0) send(slot);
                continue;
            }
            const auto transaction = static_cast<uint32_t>(from_wire(answer.mad.hdr.transact_id));
            for (uint32_t& slot : in_flight) {
                if (slot != transaction) continue;
                if (asks_for_paths && has_record(answer)) {
                    send_path_request(slot, answer);
                    break;
                }
                count(answer);
                if (found_count + refused_count + static_cast<long>(busy_slots) <= lookups) {
                    send(slot);
                } else {
                    slot = 0;
                    --busy_slots;
                }
                break;
            }
        }
    }
};

} // namespace

int main(int count, char** arguments)
{
    if (count < 2) fail("expected ADDRESS [LOOKUPS [WINDOW [path]]]");
    const long lookups = count > 2 ? std::atol(arguments[2]) : 100000;
    const long window = count > 3 ? std::atol(arguments[3]) : 16;
    if (lookups < 1 || window < 1 || window > 1024) fail("expected at least 1 lookup, and a window of 1 to 1024");

    const bare_port port = open_bare_port();
    if (port.descriptor < 0) fail("no active port can be opened");
    lookup_loop loop;
    loop.port_attributes = port.attributes;
    loop.asks_for_paths = count > 4 && std::strcmp(arguments[4], "path") == 0;
    loop.port = port.descriptor;
    loop.agent = umad_register(loop.port, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, 0, nullptr);
    if (loop.agent < 0) fail("cannot register the SA class");
    prepare(loop.request, port, arguments[1]);
    loop.in_flight.resize(static_cast<size_t>(window));

    const stopwatch watch;
    loop.run(lookups);
    watch.print(static_cast<double>(loop.found_count + loop.refused_count));
    std::printf(" (%ld found nothing, %ld lost)\n", loop.refused_count, loop.lost_count);
}
