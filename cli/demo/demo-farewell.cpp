#include "cli/demo/demo-steps.h"

#include "host/stack/gsi-service.h"
#include "host/stack/timers.h"
#include "host/world/text.h"

namespace cli
{

namespace
{

void expect_nothing_held(kernel::machine& machine)
{
    const std::string& name = machine.name();
    stage::expect(machine.modules.loaded().empty(), name + " has unloaded everything");
    stage::expect(machine.memory.blocks() == 0, name + " holds no memory");
    stage::expect(machine.inter_modules.names().empty(), name + " publishes no function");
    stage::expect(machine.get<stack::gsi>().pools().empty(), name + " has no datagram pool");
    stage::expect(machine.get<stack::timers>().armed() == 0, name + " has no timer running");
}

} // namespace

void leave(stage& on)
{
    kernel::machine& asker = on.node1().machine();
    const uint32_t address = world::parse_ipv4("10.0.0.33").value();
    stage::expect(world::resolve_address(asker, address).status == ibat_stat_ok,
                  "10.0.0.33 is resolved while node3 is there");
    stage::expect(on.node3().unload());
    on.quote(on.node3(), "Received response on send DEL SR MAD");
    on.quote(on.node3(), "ATS - module stopped");
    stage::expect(on.subnet().service_records().size() == 2, "the SA has forgotten node3");
    const world::resolution cached = world::resolve_address(asker, address, world::ask::cache_only);
    on.say("node1 still remembers 10.0.0.33", cached);
    const world::resolution gone = world::resolve_address(asker, address, world::ask::sa_only);
    on.say("node1 asks the SA for 10.0.0.33", gone);
    stage::expect(gone.status == ibat_stat_not_found, "10.0.0.33 is not resolved any more");
    stage::expect(world::resolve_address(asker, address).status == ibat_stat_not_found, "IBAT has learned that too");
}

void unload_modules(stage& on)
{
    for (const auto& host : on.hosts()) stage::expect(host->unload());
    on.quote(on.node2(), "ATS - module stopped");
    stage::expect(on.subnet().service_records().empty(), "the SA is empty");
    for (const auto& host : on.hosts()) expect_nothing_held(host->machine());
    on.say("The SA holds no record. No host holds memory, functions, datagrams or timers.");
}

} // namespace cli
