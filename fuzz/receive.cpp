// Raw datagrams, from GSI through the service to the callbacks of IBAT and UCM. An input is a row of them, each with a
// byte in front: its lowest bit chooses the port, the next one makes it a response of the SA's class, as most must be
// to get far, and the third has a UCM user ask before.
#include <algorithm>
#include <cstring>

#include "fuzz/one-host.h"
#include "host/peers/ucm-exports.h"
#include "host/world/published.h"

namespace
{

void answered(ibat_stat_t, ibat_arp_data_t* record, void*)
{
    fuzz::require(record != nullptr, "a user was told nothing");
}

void ask(fuzz::one_host& at, const fabric::mad_bytes& mad)
{
    kq_gid_t gid; // the one that the datagram, as an answer, would name
    memcpy(&gid, mad.data() + 64, sizeof gid);
    std::reverse(reinterpret_cast<uint8_t*>(&gid), reinterpret_cast<uint8_t*>(&gid + 1));
    at.machine().enter("user", [&] {
        const world::published<ucm_get_ip_fn_t> get_ip(at.machine(), "ucm_get_ip_fn");
        ibat_arp_data_t record{};
        (*get_ip)(&gid, &record, answered, nullptr);
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static fuzz::one_host at;
    fabric::mad_bytes mad;
    for (; size > mad.size(); bytes += 1 + mad.size(), size -= 1 + mad.size()) {
        std::copy_n(bytes + 1, mad.size(), mad.begin());
        if (bytes[0] & 2) mad[1] = MAD_CLASS_SUBN_ADM, mad[3] |= MAD_METHOD_RESPONSE;
        if (bytes[0] & 4) ask(at, mad);
        at.stranger.send(1, {.lid = static_cast<uint16_t>(2 + (bytes[0] & 1))}, mad);
    }
    at.check();
    return 0;
}
