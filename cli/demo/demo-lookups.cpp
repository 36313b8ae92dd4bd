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
    const world::resolution sa_answer = world::resolve_address(stage.node1().machine(), address("10.0.0.3"));
    stage.say("node1 asks for 10.0.0.3", sa_answer);
    const std::string gid = stage.record_of("node3").gid;
    stage::expect(sa_answer.status == ibat_stat_ok && world::format_gid(sa_answer.gid) == gid,
                  "10.0.0.3 is node3's GID");
    stage::expect(!sa_answer.from_cache, "the first answer comes from the SA");

    const world::resolution cached_answer = world::resolve_gid(stage.node1().machine(), sa_answer.gid);
    stage.say("node1 asks for " + gid, cached_answer);
    stage::expect(cached_answer.status == ibat_stat_ok && cached_answer.ip == address("10.0.0.3"),
                  "node3's GID is 10.0.0.3");
    stage::expect(cached_answer.from_cache, "IBAT has kept the answer");

    const world::resolution node2_answer = world::resolve_gid(stage.node2().machine(), sa_answer.gid);
    stage.say("node2 asks for " + gid, node2_answer);
    stage::expect(node2_answer.status == ibat_stat_ok && node2_answer.ip == address("10.0.0.3"),
                  "node2 hears the same");
    stage::expect(!node2_answer.from_cache, "node2 hears it from the SA");
    stage.quote(stage.node2(), "found match");
}

void ask_for_an_unknown_address(stage& stage)
{
    const world::resolution answer = world::resolve_address(stage.node1().machine(), address("10.0.0.99"));
    stage.say("node1 asks for 10.0.0.99", answer);
    stage::expect(answer.status == ibat_stat_not_found, "nobody owns 10.0.0.99");
}

void ask_a_silent_sa(stage& stage)
{
    stage.subnet().faults.sa_silent = true;
    kernel::machine& asker = stage.node1().machine();
    const world::resolution address_result = world::resolve_address(asker, address("10.0.0.98"));
    const world::resolution gid_result = world::resolve_gid(asker, kq_gid_t{.eui64 = 0x98, .subnet = 0});
    stage.subnet().faults.sa_silent = false;
    stage.say("node1 asks for 10.0.0.98", address_result);
    stage.say("node1 asks for the GID 0x98", gid_result);
    stage::expect(address_result.status == ibat_stat_timeout, "a silent SA is a time-out");
    stage::expect(gid_result.status == ibat_stat_timeout, "a silent SA is a time-out both ways");
}

} // namespace cli
