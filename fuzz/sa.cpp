// The SA of the embedded fabric: an input is a row of requests, each with a byte in front whose lowest bit makes it
// one that the SA has to look into.
#include <algorithm>

#include "fuzz/one-host.h"

namespace
{

struct sa_client final : fabric::listener {
    void mad_arrived(int, const fabric::address&, const fabric::mad_bytes& mad) override
    {
        ++answers;
        fuzz::require(mad[3] & MAD_METHOD_RESPONSE, "the SA's answer is no response");
    }
    void port_changed(int, fabric::port_change, uint16_t) override {}
    size_t answers = 0;
};

struct fabric_alone {
    fabric_alone()
    {
        hca.listen(&client);
        (void)net.link_up("stranger", "mthca0", 1);
        sim->settle();
    }
    ~fabric_alone() { hca.listen(nullptr); }

    static constexpr size_t record_limit = 8;
    std::unique_ptr<exec::simulation> sim = exec::make_simulation();
    embedded::subnet net{*sim, {.service_record_limit = record_limit}};
    fabric::hca& hca = *net.add_hca("stranger", "mthca0", 1).value();
    sa_client client;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static fabric_alone at;
    fabric::mad_bytes mad;
    size_t sent = 0;
    at.client.answers = 0;
    for (; size > mad.size(); bytes += 1 + mad.size(), size -= 1 + mad.size(), ++sent) {
        std::copy_n(bytes + 1, mad.size(), mad.begin());
        if (bytes[0] & 1) {
            constexpr uint8_t service_record_header[] = {1, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM};
            std::copy_n(service_record_header, 3, mad.begin());
            mad[3] &= static_cast<uint8_t>(~MAD_METHOD_RESPONSE);
            mad[16] = 0;
            mad[17] = SA_ATTR_SERVICE_RECORD;
        }
        at.hca.send(1, {.lid = 1}, mad);
        at.sim->run_for(bytes[0]);
    }
    at.sim->settle();
    fuzz::require(at.client.answers <= sent, "the SA answers what nobody asked");
    fuzz::require(at.net.service_records().size() <= at.record_limit, "the SA holds more than it may");
    return 0;
}
