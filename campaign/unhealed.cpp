#include "campaign/unhealed.h"

#include "campaign/tested-fabric.h"

namespace campaign
{

namespace
{

unhealed_fault& begin_unhealed_fault(tested_fabric& fabric, const act& act)
{
    ++fabric.counts.faults;
    return fabric.unhealed_faults.emplace_back(unhealed_fault{.kind = act.kind, .ports = {}});
}

void cut(tested_fabric& fabric, unhealed_fault& fault, node& node, node::port_place port, bool outbound, bool inbound)
{
    const std::string host = node.host.name(), hca = node.hcas[port.hca]->name();
    if (outbound) (void)fabric.subnet.cut_outbound(host, hca, port.port, true);
    if (inbound) (void)fabric.subnet.cut_inbound(host, hca, port.port, true);
    const std::vector<embedded::port_view> ports = fabric.subnet.ports();
    const auto view = std::ranges::find_if(ports, [&](const embedded::port_view& each) {
        return each.host_name == host && each.hca_name == hca && each.port == port.port;
    });
    fault.ports.push_back({static_cast<size_t>(view - ports.begin()), view->lost_at_cuts});
    if (!node.is_cut_off(port.hca, port.port)) node.cut_ports.push_back(port);
}

void cut_all_ports(tested_fabric& fabric, unhealed_fault& fault, node& node)
{
    for (size_t hca = 0; hca < node.hcas.size(); ++hca)
        for (int port = 1; port <= node.hcas[hca]->port_count(); ++port)
            cut(fabric, fault, node, {hca, port}, true, true);
}

void cut_any_port(tested_fabric& fabric, const act& act, bool outbound, bool inbound)
{
    node& node = fabric.node_of(act);
    const size_t hca = act.a % node.hcas.size();
    const int port = 1 + static_cast<int>((act.a >> 8) % static_cast<uint32_t>(node.hcas[hca]->port_count()));
    cut(fabric, begin_unhealed_fault(fabric, act), node, {hca, port}, outbound, inbound);
}

} // namespace

void cut_host_off(tested_fabric& fabric, const act& act)
{
    cut_all_ports(fabric, begin_unhealed_fault(fabric, act), fabric.node_of(act));
}

void cut_port_off(tested_fabric& fabric, const act& act)
{
    cut_any_port(fabric, act, true, true);
}

void cut_one_way(tested_fabric& fabric, const act& act)
{
    const bool outbound = act.b % 2 == 0;
    cut_any_port(fabric, act, outbound, !outbound);
}

void cut_partition_off(tested_fabric& fabric, const act& act)
{
    unhealed_fault& fault = begin_unhealed_fault(fabric, act);
    const uint64_t hosts = fabric.nodes.size(), count = 1 + act.b % most_hosts_cut(hosts);
    for (uint64_t i = 0; i < count; ++i) cut_all_ports(fabric, fault, fabric.nodes[(act.host + i) % hosts]);
}

void check_the_rest(tested_fabric& fabric, const act& act)
{
    for (node& each : fabric.nodes) each.start("check", [&each, act] { check_in_spite_of_cuts(each, act); });
}

void count_unhealed_faults(tested_fabric& fabric)
{
    const std::vector<embedded::port_view> ports = fabric.subnet.ports();
    for (const unhealed_fault& fault : fabric.unhealed_faults)
        for (const unhealed_fault::cut_port& port : fault.ports)
            fabric.counts.marks[fault.kind] += ports[port.number].lost_at_cuts - port.lost_before;
}

} // namespace campaign
