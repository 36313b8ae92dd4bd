#include "cli/demo/demo-steps.h"

#include "host/world/published.h"
#include "host/world/text.h"

namespace cli
{

namespace
{

constexpr uint64_t verification_period_ticks = 60'600; // the default period of 60 s, plus the default skew of 1 %
constexpr uint64_t request_ticks = 2'000;              // a request without an answer has failed after this time

std::string seconds(uint64_t ticks)
{
    return std::to_string(ticks / 1000) + "." + std::to_string(ticks % 1000 / 100) + " s";
}

fabric::gid_bytes bytes_of(const std::string& gid)
{
    return std::to_array(to_wire(world::parse_gid(gid).value()).bytes);
}

// Sets a host's address through a function that ats publishes for other modules.
void set_address(world::host& host, const std::string& address)
{
    kernel::machine& machine = host.machine();
    machine.enter("set address", [&] {
        const world::published<int32_t (*)(uint32_t)> set(machine, "ATS_SA_SET_IP_ADDR");
        stage::expect(set && (*set)(world::parse_ipv4(address).value()) == 0, host.name() + " takes " + address);
    });
}

} // namespace

void lose_the_active_port(stage& stage)
{
    const std::string old_gid = stage.record_of("node2").gid;
    stage.set_link(stage.node2(), 1, false);
    stage.wait_for(1000, "node2 is registered with its other port", [&] {
        return stage.subnet().service_records().size() == 3 && stage.record_of("node2").gid != old_gid;
    });
    stage.quote(stage.node2(), "Received link_down <port:1>");
    stage.quote(stage.node2(), "Setting port 2 to be the active port");
    stage.say("node2 was " + old_gid + " and is " + stage.record_of("node2").gid);
}

void lose_a_record(stage& stage)
{
    const std::string gid = stage.record_of("node1").gid;
    stage::expect(stage.subnet().forget(bytes_of(gid)) == 1, "the SA forgets one record");
    const uint64_t ticks = stage.wait_for(verification_period_ticks + request_ticks, "node1 is registered again",
                                          [&] { return stage.subnet().service_records().size() == 3; });
    stage::expect(stage.record_of("node1").gid == gid, "node1 has its record back");
    stage.quote(stage.node1(), "gid & ipaddress don't match");
    stage.say("It asks about itself once a minute; this time that was after " + seconds(ticks) + ".");
    stage.time().run_for(request_ticks); // the other hosts check their records meanwhile
}

void use_an_address_twice(stage& stage)
{
    set_address(stage.node3(), "10.0.0.1");
    stage.time().run_for(10);
    const world::resolution answer =
        world::resolve_address(stage.node2().machine(), world::parse_ipv4("10.0.0.1").value());
    stage.say("node2 asks for 10.0.0.1", answer);
    stage::expect(answer.status == ibat_stat_not_found, "an address of two hosts is not resolved to either");
    stage.quote(stage.node2(), "mad_stat=1024"); // 0x0400, IBA 15.2.4: too many records
    set_address(stage.node3(), "10.0.0.3");
    stage.wait_for(1000, "node3 is back at its address", [&] {
        return stage.subnet().service_records().size() == 3 && stage.record_of("node3").ipv4 == "10.0.0.3";
    });
}

void change_address_at_a_silent_sa(stage& stage)
{
    stage.subnet().faults.sa_silent = true;
    stage.write_control(stage.node3(), "set_ip_addrs 10.0.0.33");
    stage.time().run_for(10); // the SA stays silent until the last request has reached it
    stage.subnet().faults.sa_silent = false;
    stage.quote(stage.node3(), "ATS - ERROR DEL SR Failed");
    stage::expect(stage.record_of("node3").ipv4 == "10.0.0.3", "the SA has not heard of it");
    const uint64_t ticks = stage.wait_for(verification_period_ticks + request_ticks, "the SA hears of it",
                                          [&] { return stage.record_of("node3").ipv4 == "10.0.0.33"; });
    stage.say("The SA speaks again. After " + seconds(ticks) +
              " node3 finds its old address there, and registers the new one:");
    stage.quote(stage.node3(), "ipaddresses [10.0.0.3, 10.0.0.33]");
}

void change_name(stage& stage)
{
    stage.write_control(stage.node3(), "set_host_name database");
    stage.time().run_for(10); // wait for the answer of the SA, because write_control() does not
    const embedded::service_record_view record = stage.record_of("database");
    stage::expect(record.ipv4 == "10.0.0.33", "the record has the new name and the new address");
    const std::string report = stage.read_control(stage.node3());
    for (const char* line : {"The Active Port Is Port Number 1", "Port IP Address 10.0.0.33"}) {
        stage::expect(report.find(line) != std::string::npos, std::string("the report says '") + line + "'");
        stage.quote(stage.node3(), line);
    }
}

} // namespace cli
