// Fuzzes the SA of the embedded fabric. An input is a sequence of requests. The byte before each request is the number
// of ticks to wait after the request. If the byte is odd, the request gets the header of a request about a
// ServiceRecord. The SA refuses or ignores most other requests at once.
#include <algorithm>

#include "fuzz/one-host.h"

namespace
{

struct sa_client final : fabric::listener {
    void mad_arrived(int, const fabric::address&, const fabric::mad_bytes& mad) override
    {
        ++answer_count;
        fuzz::require(mad[3] & MAD_METHOD_RESPONSE, "an answer of the SA is not marked as a response");
    }
    void port_changed(int, fabric::port_change, uint16_t) override {}
    size_t answer_count = 0;
};

struct bare_fabric {
    bare_fabric()
    {
        hca.listen(&client);
        fuzz::require(net.link_up("stranger", "mthca0", 1).has_value(), "the link does not come up");
        sim->settle();
    }
    ~bare_fabric() { hca.listen(nullptr); }

    static constexpr size_t record_limit = 8;
    std::unique_ptr<exec::simulation> sim = exec::make_simulation();
    embedded::subnet net{*sim, {.service_record_limit = record_limit}};
    fabric::hca& hca = *net.add_hca("stranger", "mthca0", 1).value();
    sa_client client;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static bare_fabric fabric;
    fabric::mad_bytes mad;
    size_t request_count = 0;
    fabric.client.answer_count = 0;
    while (size > mad.size()) {
        const uint8_t wait_ticks = bytes[0];
        std::copy_n(bytes + 1, mad.size(), mad.begin());
        bytes += 1 + mad.size();
        size -= 1 + mad.size();
        if (wait_ticks & 1) {
            constexpr uint8_t service_record_header[] = {1, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM};
            std::copy_n(service_record_header, 3, mad.begin());
            mad[3] &= static_cast<uint8_t>(~MAD_METHOD_RESPONSE);
            mad[16] = 0;
            mad[17] = SA_ATTR_SERVICE_RECORD;
        }
        fabric.hca.send(1, {.lid = 1}, mad);
        ++request_count;
        fabric.sim->run_for(wait_ticks);
    }
    fabric.sim->settle();
    fuzz::require(fabric.client.answer_count <= request_count, "the SA sends more answers than it got requests");
    fuzz::require(fabric.net.service_records().size() <= fabric.record_limit,
                  "the SA holds more records than its limit");
    return 0;
}
