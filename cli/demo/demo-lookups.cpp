#include "cli/demo/demo-steps.h"

#include "host/world/text.h"

namespace cli
{

namespace
{

uint32_t address(const char* text)
{
    return world::parse_ipv4(text).value();
}

} // namespace

void resolve_both_ways(stage& stage)
{
    const world::resolution forward = world::resolve_address(stage.node1().machine(), address("10.0.0.3"));
    stage.say("node1 asks for 10.0.0.3", forward);
    const std::string gid = stage.record_of("node3").gid;
    stage::expect(forward.status == ibat_stat_ok && world::format_gid(forward.gid) == gid, "10.0.0.3 is node3's GID");
    stage::expect(!forward.from_cache, "the first answer comes from the SA");

    const world::resolution backward = world::resolve_gid(stage.node1().machine(), forward.gid);
    stage.say("node1 asks for " + gid, backward);
    stage::expect(backward.status == ibat_stat_ok && backward.ip == address("10.0.0.3"), "node3's GID is 10.0.0.3");
    stage::expect(backward.from_cache, "IBAT has kept the answer");

    const world::resolution second = world::resolve_gid(stage.node2().machine(), forward.gid);
    stage.say("node2 asks for " + gid, second);
    stage::expect(second.status == ibat_stat_ok && second.ip == address("10.0.0.3"), "node2 hears the same");
    stage::expect(!second.from_cache, "node2 hears it from the SA");
    stage.quote(stage.node2(), "found match");
}

void ask_for_an_unknown_address(stage& stage)
{
    const world::resolution nobody = world::resolve_address(stage.node1().machine(), address("10.0.0.99"));
    stage.say("node1 asks for 10.0.0.99", nobody);
    stage::expect(nobody.status == ibat_stat_not_found, "nobody owns 10.0.0.99");
}

void ask_a_silent_sa(stage& stage)
{
    stage.subnet().faults.sa_silent = true;
    const world::resolution silence = world::resolve_address(stage.node1().machine(), address("10.0.0.98"));
    const world::resolution reverse = world::resolve_gid(stage.node1().machine(), kq_gid_t{.eui64 = 0x98, .subnet = 0});
    stage.subnet().faults.sa_silent = false;
    stage.say("node1 asks for 10.0.0.98", silence);
    stage.say("node1 asks for the GID 0x98", reverse);
    stage::expect(silence.status == ibat_stat_timeout, "a silent SA is a time-out");
    stage::expect(reverse.status == ibat_stat_timeout, "a silent SA is a time-out both ways");
}

} // namespace cli
