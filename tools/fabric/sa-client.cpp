#include "tools/fabric/sa-client.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/fabric/umad/libibumad.h"

namespace fabric_tools
{

namespace
{

constexpr int answer_wait_ms = 1000;
constexpr int tries = 5; // OpenSM drops requests while it is busy

} // namespace

void fail(const char* reason)
{
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, reason);
    std::exit(2);
}

bool parse_gid(const char* text, wire_gid_t& gid)
{
    if (inet_pton(AF_INET6, text, &gid) == 1) return true;
    if (std::strncmp(text, "0x", 2) != 0 || std::strlen(text) != 2 + 2 * sizeof gid) return false;
    for (size_t i = 0; i < sizeof gid; ++i)
        if (std::sscanf(text + 2 + 2 * i, "%2hhx", &gid.bytes[i]) != 1) return false;
    return true;
}

sa_client::sa_client()
{
    umad_port_t port;
    if (umad_init() < 0 || umad_get_port(nullptr, 0, &port) < 0) fail("there is no InfiniBand port that can be used");
    umad_release_port(&port); // frees only the list of P_Keys; the other fields do not change
    sm_lid_ = static_cast<int>(port.sm_lid);
    sm_sl_ = static_cast<int>(port.sm_sl);
    descriptor_ = umad_open_port(port.ca_name, port.portnum);
    if (descriptor_ < 0) fail("cannot open the port");
    agent_ = umad_register(descriptor_, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, 0, nullptr);
    if (agent_ < 0) fail("cannot register the SA class");
}

std::optional<sa_mad_v2_t> sa_client::ask(sa_mad_v2_t request)
{
    request.hdr.transact_id = to_wire(uint64_t{++transaction_});
    alignas(8) char buffer[sizeof(ib_user_mad_t) + MAD_SIZE];
    for (int i = 0; i < tries; ++i) {
        std::memset(buffer, 0, sizeof buffer);
        umad_set_addr(buffer, sm_lid_, 1, sm_sl_, static_cast<int>(0x80010000));
        std::memcpy(umad_get_mad(buffer), &request, sizeof request);
        if (umad_send(descriptor_, agent_, buffer, MAD_SIZE, answer_wait_ms, 0) < 0) fail("the request was not sent");
        if (const std::optional<sa_mad_v2_t> answer = receive(transaction_)) return answer;
    }
    return std::nullopt;
}

std::optional<sa_mad_v2_t> sa_client::receive(uint32_t transaction) const
{
    alignas(8) char buffer[sizeof(ib_user_mad_t) + MAD_SIZE];
    int length = MAD_SIZE;
    if (umad_recv(descriptor_, buffer, &length, answer_wait_ms) < 0 || umad_status(buffer) != 0) return std::nullopt;
    sa_mad_v2_t answer;
    std::memcpy(&answer, umad_get_mad(buffer), sizeof answer);
    if (static_cast<uint32_t>(from_wire(answer.hdr.transact_id)) != transaction) return std::nullopt;
    return answer;
}

} // namespace fabric_tools
