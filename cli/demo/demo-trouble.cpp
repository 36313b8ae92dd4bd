#include "cli/demo/demo-steps.h"

#include "host/world/published.h"
#include "host/world/text.h"

namespace cli
{

namespace
{

constexpr uint64_t verification_period_ticks = 60'600; // with the usual skew
constexpr uint64_t request_ticks = 2'000;              // until a request that nobody answers is given up

std::string seconds(uint64_t ticks)
{
    return std::to_string(ticks / 1000) + "." + std::to_string(ticks % 1000 / 100) + " s";
}

fabric::gid_bytes bytes_of(const std::string& gid)
{
    return std::to_array(to_wire(world::parse_gid(gid).value()).bytes);
}

// Sets a host's address the way a module of the host does that finds the function by its name.
void set_address(world::host& at, const std::string& address)
{
    kernel::machine& machine = at.machine();
    machine.enter("set address", [&] {
        const world::published<int32_t (*)(uint32_t)> set(machine, "ATS_SA_SET_IP_ADDR");
        stage::expect(set && (*set)(world::parse_ipv4(address).value()) == 0, at.name() + " takes " + address);
    });
}

} // namespace

void lose_the_active_port(stage& on)
{
    const std::string before = on.record_of("node2").gid;
    on.link(on.node2(), 1, false);
    on.wait_for(1000, "node2 is registered with its other port",
                [&] { return on.subnet().service_records().size() == 3 && on.record_of("node2").gid != before; });
    on.quote(on.node2(), "Received link_down <port:1>");
    on.quote(on.node2(), "Setting port 2 to be the active port");
    on.say("node2 was " + before + " and is " + on.record_of("node2").gid);
}

void lose_a_record(stage& on)
{
    const std::string gid = on.record_of("node1").gid;
    stage::expect(on.subnet().forget(bytes_of(gid)) == 1, "the SA forgets one record");
    const uint64_t took = on.wait_for(verification_period_ticks + request_ticks, "node1 is registered again",
                                      [&] { return on.subnet().service_records().size() == 3; });
    stage::expect(on.record_of("node1").gid == gid, "node1 has its record back");
    on.quote(on.node1(), "gid & ipaddress don't match");
    on.say("It asks about itself once a minute; this time that was after " + seconds(took) + ".");
    on.time().run_for(request_ticks); // the others' checks were due too, and are over
}

void clash_addresses(stage& on)
{
    set_address(on.node3(), "10.0.0.1");
    on.time().run_for(10);
    const world::resolution either =
        world::resolve_address(on.node2().machine(), world::parse_ipv4("10.0.0.1").value());
    on.say("node2 asks for 10.0.0.1", either);
    stage::expect(either.status == ibat_stat_not_found, "an address of two hosts is not resolved to either");
    on.quote(on.node2(), "mad_stat=1024"); // 0x0400, IBA 15.2.4: too many records
    set_address(on.node3(), "10.0.0.3");
    on.wait_for(1000, "node3 is back at its address",
                [&] { return on.subnet().service_records().size() == 3 && on.record_of("node3").ipv4 == "10.0.0.3"; });
}

void change_address_unheard(stage& on)
{
    on.subnet().faults.sa_silent = true;
    on.write_control(on.node3(), "set_ip_addrs 10.0.0.33");
    on.time().run_for(10); // what was sent last is not heard either
    on.subnet().faults.sa_silent = false;
    on.quote(on.node3(), "ATS - ERROR DEL SR Failed");
    stage::expect(on.record_of("node3").ipv4 == "10.0.0.3", "the SA has not heard of it");
    const uint64_t took = on.wait_for(verification_period_ticks + request_ticks, "the SA hears of it",
                                      [&] { return on.record_of("node3").ipv4 == "10.0.0.33"; });
    on.say("The SA speaks again. After " + seconds(took) +
           " node3 finds its old address there, and registers the new one:");
    on.quote(on.node3(), "ipaddresses [10.0.0.3, 10.0.0.33]");
}

void change_name(stage& on)
{
    on.write_control(on.node3(), "set_host_name database");
    on.time().run_for(10); // the answer is not awaited by the writer
    const embedded::service_record_view record = on.record_of("database");
    stage::expect(record.ipv4 == "10.0.0.33", "the record has the new name and the new address");
    const std::string report = on.read_control(on.node3());
    for (const char* line : {"The Active Port Is Port Number 1", "Port IP Address 10.0.0.33"}) {
        stage::expect(report.find(line) != std::string::npos, std::string("the report says '") + line + "'");
        on.quote(on.node3(), line);
    }
}

} // namespace cli
