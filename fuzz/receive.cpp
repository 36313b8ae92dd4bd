// Fuzzes the receipt of datagrams. They pass through GSI and ats to the callbacks of IBAT and UCM. An input is a
// sequence of datagrams, each with a byte of flags before it.
#include <algorithm>
#include <cstring>

#include "fuzz/one-host.h"
#include "host/peers/ucm-exports.h"
#include "host/world/published.h"

namespace
{

constexpr uint8_t flag_port = 1;        // the destination is the second port
constexpr uint8_t flag_sa_response = 2; // becomes a response of the SA's class; GSI drops most other datagrams at once
constexpr uint8_t flag_ask_before = 4;  // first, a user of UCM asks for the address of the GID in the datagram

void check_answer(ibat_stat_t, ibat_arp_data_t* record, void*)
{
    fuzz::require(record != nullptr, "a callback has no record");
}

void ask(fuzz::one_host& host, const fabric::mad_bytes& mad)
{
    constexpr size_t gid_offset = 64; // of the ServiceGID in a MAD with a ServiceRecord
    kq_gid_t gid;
    memcpy(&gid, mad.data() + gid_offset, sizeof gid);
    std::reverse(reinterpret_cast<uint8_t*>(&gid), reinterpret_cast<uint8_t*>(&gid + 1));
    host.machine().enter("user", [&] {
        const world::published<ucm_get_ip_fn_t> get_ip(host.machine(), "ucm_get_ip_fn");
        ibat_arp_data_t record{};
        (*get_ip)(&gid, &record, check_answer, nullptr);
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static fuzz::one_host host;
    fabric::mad_bytes mad;
    while (size > mad.size()) {
        const uint8_t flags = bytes[0];
        std::copy_n(bytes + 1, mad.size(), mad.begin());
        bytes += 1 + mad.size();
        size -= 1 + mad.size();
        if (flags & flag_sa_response) {
            mad[1] = MAD_CLASS_SUBN_ADM;
            mad[3] |= MAD_METHOD_RESPONSE;
        }
        if (flags & flag_ask_before) ask(host, mad);
        host.stranger.send(1, {.lid = static_cast<uint16_t>(2 + (flags & flag_port))}, mad);
    }
    host.check();
    return 0;
}
