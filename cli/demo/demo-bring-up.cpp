#include "cli/demo/demo-steps.h"
#include "records/host-record.h"

namespace cli
{

void load_modules(stage& stage)
{
    for (const auto& host : stage.hosts()) stage::expect(host->load());
    stage.time().run_for(10);
    stage.quote(stage.node1(), "LOGGER: Added key");
    stage::expect(stage.subnet().service_records().empty(), "nothing is registered before a link is up");
}

void bring_links_up(stage& stage)
{
    stage.set_link(stage.node1(), 1, true);
    stage.set_link(stage.node2(), 1, true);
    stage.set_link(stage.node2(), 2, true);
    stage.set_link(stage.node3(), 1, true);
    stage.wait_for(1000, "the SA holds three records", [&] { return stage.subnet().service_records().size() == 3; });
    stage.quote(stage.node2(), "Setting port 1 to be the active port");
    stage.show_records();
    for (const auto& host : stage.hosts()) {
        const embedded::service_record_view record = stage.record_of(host->name());
        const std::string address = "10.0.0." + host->name().substr(4);
        stage::expect(record.ipv4 == address && record.p_key == 0xFFFF &&
                          record.lease_seconds == records::infinite_lease,
                      "the record of " + host->name() + " has its address, P_Key and lease");
    }
}

} // namespace cli
