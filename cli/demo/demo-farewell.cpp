#include "cli/demo/demo-steps.h"

#include "host/stack/gsi-service.h"
#include "host/stack/timers.h"
#include "host/world/text.h"

namespace cli
{

namespace
{

void expect_empty(kernel::machine& machine)
{
    const std::string& name = machine.name();
    stage::expect(machine.modules.loaded().empty(), name + " has unloaded everything");
    stage::expect(machine.memory.blocks() == 0, name + " holds no memory");
    stage::expect(machine.inter_modules.names().empty(), name + " publishes no function");
    stage::expect(machine.get<stack::gsi>().pools().empty(), name + " has no datagram pool");
    stage::expect(machine.get<stack::timers>().armed() == 0, name + " has no timer running");
}

} // namespace

void leave_one_host(stage& stage)
{
    kernel::machine& asker = stage.node1().machine();
    const uint32_t address = world::parse_ipv4("10.0.0.33").value();
    stage::expect(world::resolve_address(asker, address).status == ibat_stat_ok,
                  "10.0.0.33 is resolved while node3 is there");
    stage::expect(stage.node3().unload());
    stage.quote(stage.node3(), "Received response on send DEL SR MAD");
    stage.quote(stage.node3(), "ATS - module stopped");
    stage::expect(stage.subnet().service_records().size() == 2, "the SA has forgotten node3");
    const world::resolution cached_answer = world::resolve_address(asker, address, world::lookup_mode::cache_only);
    stage.say("node1 still remembers 10.0.0.33", cached_answer);
    const world::resolution sa_answer = world::resolve_address(asker, address, world::lookup_mode::sa_only);
    stage.say("node1 asks the SA for 10.0.0.33", sa_answer);
    stage::expect(sa_answer.status == ibat_stat_not_found, "10.0.0.33 is not resolved any more");
    stage::expect(world::resolve_address(asker, address).status == ibat_stat_not_found, "IBAT has learned that too");
}

void unload_modules(stage& stage)
{
    for (const auto& host : stage.hosts()) stage::expect(host->unload());
    stage.quote(stage.node2(), "ATS - module stopped");
    stage::expect(stage.subnet().service_records().empty(), "the SA is empty");
    for (const auto& host : stage.hosts()) expect_empty(host->machine());
    stage.say("The SA holds no record. No host holds memory, functions, datagrams or timers.");
}

} // namespace cli
