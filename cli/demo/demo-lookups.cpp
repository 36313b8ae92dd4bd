#include "cli/demo/demo-steps.h"

#include "host/world/text.h"

namespace cli
{

namespace
{

uint32_t ip(const char* text)
{
    return world::parse_ipv4(text).value();
}

} // namespace

void resolve_both_ways(stage& on)
{
    const world::resolution there = world::resolve_address(on.node1().machine(), ip("10.0.0.3"));
    on.say("node1 asks for 10.0.0.3", there);
    const std::string gid = on.record_of("node3").gid;
    stage::expect(there.status == ibat_stat_ok && world::format_gid(there.gid) == gid, "10.0.0.3 is node3's GID");
    stage::expect(!there.from_cache, "the first answer comes from the SA");

    const world::resolution back = world::resolve_gid(on.node1().machine(), there.gid);
    on.say("node1 asks for " + gid, back);
    stage::expect(back.status == ibat_stat_ok && back.ip == ip("10.0.0.3"), "node3's GID is 10.0.0.3");
    stage::expect(back.from_cache, "IBAT has kept the answer");

    const world::resolution unheard = world::resolve_gid(on.node2().machine(), there.gid);
    on.say("node2 asks for " + gid, unheard);
    stage::expect(unheard.status == ibat_stat_ok && unheard.ip == ip("10.0.0.3"), "node2 hears the same");
    stage::expect(!unheard.from_cache, "node2 hears it from the SA");
    on.quote(on.node2(), "found match");
}

void ask_for_the_unknown(stage& on)
{
    const world::resolution nobody = world::resolve_address(on.node1().machine(), ip("10.0.0.99"));
    on.say("node1 asks for 10.0.0.99", nobody);
    stage::expect(nobody.status == ibat_stat_not_found, "nobody owns 10.0.0.99");
}

void ask_a_silent_sa(stage& on)
{
    on.subnet().faults.sa_silent = true;
    const world::resolution silence = world::resolve_address(on.node1().machine(), ip("10.0.0.98"));
    const world::resolution reverse = world::resolve_gid(on.node1().machine(), kq_gid_t{.eui64 = 0x98, .subnet = 0});
    on.subnet().faults.sa_silent = false;
    on.say("node1 asks for 10.0.0.98", silence);
    on.say("node1 asks for the GID 0x98", reverse);
    stage::expect(silence.status == ibat_stat_timeout, "a silent SA is a time-out");
    stage::expect(reverse.status == ibat_stat_timeout, "a silent SA is a time-out both ways");
}

} // namespace cli
