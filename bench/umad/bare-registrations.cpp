// Measures registrations with libibumad only, in one thread. Like a host after an event, this program asks its port for
// PortInfo, deletes its record at the SA, and sets the record again. It sends each request after the answer to the
// previous request. It is the reference for the program reregistrations.
//   bare-registrations OWN_ADDRESS COUNT
// Prints the median time of such a registration in milliseconds.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench/umad/bare-port.h"
#include "host/fabric/umad/self-query.h"

namespace
{

constexpr int timeout_ms = 500;

[[noreturn]] void fail(const char* reason)
{
    std::fprintf(stderr, "bare-registrations: %s\n", reason);
    std::exit(2);
}

// Sends the request and waits for its answer.
void ask(const bare_port& port, int agent, umad_buffer& request)
{
    if (umad_send(port.descriptor, agent, &request, MAD_SIZE, timeout_ms, 0) < 0) fail("a request was not sent");
    umad_buffer answer;
    int length = MAD_SIZE;
    if (umad_recv(port.descriptor, &answer, &length, timeout_ms) < 0 || umad_status(&answer) != 0)
        fail("a request was not answered");
}

// Makes a request for the PortInfo of the port itself.
umad_buffer port_question(const bare_port& port)
{
    constexpr int permissive_lid = 0xFFFF; // the destination is this port itself, whatever its LID is
    umad::self_query query(port.attributes.portnum);
    query.restart(umad::self_query::look::brief);
    const fabric::mad_bytes mad = query.next_question();
    umad_buffer question{};
    umad_set_addr(&question, permissive_lid, 0, 0, 0);
    std::memcpy(&question.mad, &mad, sizeof mad);
    return question;
}

} // namespace

int main(int count, char** arguments)
{
    records::host_record host{.p_key = 0xFFFF, .host_name = "bench"};
    const int rounds = count == 3 ? std::atoi(arguments[2]) : 0;
    if (rounds < 1 || inet_pton(AF_INET, arguments[1], &host.address) != 1) fail("expected OWN_ADDRESS COUNT");
    const bare_port port = open_bare_port();
    if (port.descriptor < 0) fail("no active port can be opened");
    host.gid = {.eui64 = be64toh(port.attributes.port_guid), .subnet = be64toh(port.attributes.gid_prefix)};
    const int sa_agent = umad_register(port.descriptor, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, 0, nullptr);
    const int smp_agent =
        umad_register(port.descriptor, umad::class_directed_route, umad::class_version_smp, 0, nullptr);
    if (sa_agent < 0 || smp_agent < 0) fail("cannot register the management classes");

    constexpr uint64_t record_identifier = 0x43; // the component mask: ServiceID, ServiceGID and ServiceName
    umad_buffer question = port_question(port), removal, registration;
    prepare_request(removal, port, MAD_METHOD_DELETE, record_identifier, host);
    prepare_request(registration, port, MAD_METHOD_SET, UINT64_MAX, host);
    std::vector<double> times;
    uint32_t sent_count = 0;
    for (int i = 0; i < rounds; ++i) {
        removal.mad.hdr.transact_id = to_wire(uint64_t{++sent_count});
        registration.mad.hdr.transact_id = to_wire(uint64_t{++sent_count});
        const auto begin = std::chrono::steady_clock::now();
        ask(port, smp_agent, question);
        ask(port, sa_agent, removal);
        ask(port, sa_agent, registration);
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
    }
    std::ranges::sort(times);
    std::printf("%.3f ms to register\n", times[times.size() / 2]);
}
