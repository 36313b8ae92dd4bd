#include "host/fabric/umad/umad.h"

#include <algorithm>
#include <arpa/inet.h>
#include <filesystem>

#include "host/fabric/umad/real-hca.h"

namespace umad
{

namespace
{

constexpr unsigned channel_adapter = 1; // IBA 14.2.5.3, NodeInfo.NodeType

// Why there is nothing to list.
std::string what_is_missing()
{
    std::error_code none;
    const auto drivers = std::filesystem::directory_iterator(SYS_INFINIBAND, none);
    if (!none && drivers != std::filesystem::directory_iterator())
        return "the HCAs of this machine have no management devices for InfiniBand: load ib_umad ('modprobe ib_umad')";
    return "this machine has no InfiniBand HCA, or its driver is not loaded: look at 'lspci' and 'dmesg'";
}

class opened_fabric final : public real_fabric
{
  public:
    opened_fabric(exec::executor& exec, const options& wanted) : around_(exec, wanted) {}

    // Empty, or why it cannot be used.
    std::string add(const hca_listing& listed)
    {
        adapters_.push_back(std::make_unique<adapter>(around_, listed));
        return adapters_.back()->open();
    }

    std::vector<fabric::hca*> hcas() const override
    {
        std::vector<fabric::hca*> list;
        for (const auto& each : adapters_) list.push_back(each.get());
        return list;
    }
    void set_tap(fabric::tap* to) override { around_.set_tap(to); }
    traffic_counts counts() const override
    {
        traffic_counts sum;
        for (const auto& each : adapters_) sum = sum + each->counts();
        return sum;
    }

  private:
    surroundings around_;
    std::vector<std::unique_ptr<adapter>> adapters_;
};

port_listing describe(const umad_port_t& port)
{
    return {.number = port.portnum,
            .link_layer = port.link_layer,
            .device = device_file(port.ca_name, port.portnum),
            .state = fabric::link_state_of(port.state),
            .lid = static_cast<uint16_t>(port.base_lid),
            .sm_lid = static_cast<uint16_t>(port.sm_lid),
            .sm_sl = static_cast<uint8_t>(port.sm_sl),
            .gid = fabric::make_gid(be64toh(port.gid_prefix), be64toh(port.port_guid))};
}

hca_listing describe(const char* name)
{
    hca_listing described{.name = name, .ports = {}};
    umad_ca_t adapter;
    if (umad_get_ca(name, &adapter) < 0) return described;
    if (adapter.node_type == channel_adapter)
        for (int i = 1; i <= adapter.numports && i < UMAD_CA_MAX_PORTS; ++i)
            described.ports.push_back(adapter.ports[i] ? describe(*adapter.ports[i]) : port_listing{.number = i});
    umad_release_ca(&adapter);
    return described;
}

} // namespace

bool is_infiniband(const port_listing& port)
{
    return !port.device.empty() && port.link_layer != "Ethernet";
}

bool is_available()
{
    return true;
}

listing list_hcas()
{
    if (umad_init() < 0) return {.hcas = {}, .why = what_is_missing()};
    char names[UMAD_MAX_DEVICES][UMAD_CA_NAME_LEN];
    const int count = umad_get_cas_names(names, UMAD_MAX_DEVICES);
    listing found;
    for (int i = 0; i < count; ++i) {
        hca_listing each = describe(names[i]);
        if (std::ranges::any_of(each.ports, is_infiniband)) found.hcas.push_back(std::move(each));
    }
    if (found.hcas.empty()) found.why = what_is_missing();
    return found;
}

std::string try_port(const std::string& hca, int port)
{
    device tried(hca, port);
    return tried.open();
}

opened open(exec::executor& exec, const options& wanted)
{
    const listing found = list_hcas();
    if (!found.why.empty()) return {nullptr, found.why};
    std::string known;
    std::vector<std::string> names = wanted.hcas;
    for (const hca_listing& each : found.hcas) {
        known += (known.empty() ? "" : ", ") + each.name;
        if (wanted.hcas.empty()) names.push_back(each.name);
    }

    auto made = std::make_unique<opened_fabric>(exec, wanted);
    for (auto name = names.begin(); name != names.end(); ++name) {
        if (std::find(names.begin(), name, *name) != name) return {nullptr, "HCA '" + *name + "' is named twice"};
        const auto listed = std::ranges::find(found.hcas, *name, &hca_listing::name);
        if (listed == found.hcas.end()) return {nullptr, "there is no HCA '" + *name + "'; there is " + known};
        if (const std::string why = made->add(*listed); !why.empty()) return {nullptr, why};
    }
    return {std::move(made), ""};
}

} // namespace umad
