#include "cli/demo/demo-steps.h"
#include "records/host-record.h"

namespace cli
{

void load_modules(stage& on)
{
    for (const auto& host : on.hosts()) stage::expect(host->load());
    on.time().run_for(10);
    on.quote(on.node1(), "LOGGER: Added key");
    stage::expect(on.subnet().service_records().empty(), "nothing is registered before a link is up");
}

void bring_links_up(stage& on)
{
    on.link(on.node1(), 1, true);
    on.link(on.node2(), 1, true);
    on.link(on.node2(), 2, true);
    on.link(on.node3(), 1, true);
    on.wait_for(1000, "three records stand at the SA", [&] { return on.subnet().service_records().size() == 3; });
    on.quote(on.node2(), "Setting port 1 to be the active port");
    on.show_records();
    for (const auto& host : on.hosts()) {
        const embedded::service_record_view record = on.record_of(host->name());
        const std::string address = "10.0.0." + host->name().substr(4);
        stage::expect(record.ipv4 == address && record.p_key == 0xFFFF &&
                          record.lease_seconds == records::infinite_lease,
                      "the record of " + host->name() + " has its address, P_Key and lease");
    }
}

} // namespace cli
