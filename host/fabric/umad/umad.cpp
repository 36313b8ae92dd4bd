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

// The error for a machine without a usable HCA.
tl::unexpected<ats::error> no_hcas()
{
    std::error_code error;
    const auto drivers = std::filesystem::directory_iterator(SYS_INFINIBAND, error);
    if (!error && drivers != std::filesystem::directory_iterator())
        return ats::fail(
            "the HCAs of this machine have no management devices for InfiniBand: load ib_umad ('modprobe ib_umad')");
    return ats::fail("this machine has no InfiniBand HCA, or its driver is not loaded: look at 'lspci' and 'dmesg'");
}

class umad_fabric final : public real_fabric
{
  public:
    umad_fabric(exec::executor& exec, const fabric_options& options) : context_(exec, options) {}

    // Adds an HCA and opens its ports.
    ats::result<> add(const hca_listing& hca)
    {
        hcas_.push_back(std::make_unique<real_hca>(context_, hca));
        return hcas_.back()->open();
    }

    std::vector<fabric::hca*> hcas() const override
    {
        std::vector<fabric::hca*> list;
        for (const auto& each : hcas_) list.push_back(each.get());
        return list;
    }
    void set_tap(fabric::tap* tap) override { context_.set_tap(tap); }
    std::vector<fabric::fabric_task> tasks() override
    {
        std::vector<fabric::fabric_task> list;
        for (const auto& each : hcas_)
            for (fabric::fabric_task& task : each->tasks()) list.push_back(std::move(task));
        return list;
    }
    datagram_counts counts() const override
    {
        datagram_counts sum;
        for (const auto& each : hcas_) sum = sum + each->counts();
        return sum;
    }

  private:
    fabric_context context_;
    std::vector<std::unique_ptr<real_hca>> hcas_;
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
    hca_listing listing{.name = name, .ports = {}};
    umad_ca_t adapter;
    if (umad_get_ca(name, &adapter) < 0) return listing;
    if (adapter.node_type == channel_adapter)
        for (int i = 1; i <= adapter.numports && i < UMAD_CA_MAX_PORTS; ++i)
            listing.ports.push_back(adapter.ports[i] ? describe(*adapter.ports[i]) : port_listing{.number = i});
    umad_release_ca(&adapter);
    return listing;
}

std::string names_text(const std::vector<hca_listing>& hcas)
{
    std::string text;
    for (const hca_listing& each : hcas) text += (text.empty() ? "" : ", ") + each.name;
    return text;
}

// Returns the HCAs that the options name, in the order of the options. If the options name none, returns all usable
// HCAs.
ats::result<std::vector<hca_listing>> chosen_hcas(const fabric_options& options)
{
    auto hcas = list_hcas();
    if (!hcas || options.hcas.empty()) return hcas;
    std::vector<hca_listing> selection;
    for (const std::string& name : options.hcas) {
        if (std::ranges::find(selection, name, &hca_listing::name) != selection.end())
            return ats::fail("HCA '" + name + "' is named twice");
        auto hca = find_hca(*hcas, name);
        if (!hca) return ats::pass_on(hca);
        selection.push_back(std::move(*hca));
    }
    return selection;
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

ats::result<std::vector<hca_listing>> list_hcas()
{
    if (umad_init() < 0) return no_hcas();
    char names[UMAD_MAX_DEVICES][UMAD_CA_NAME_LEN];
    const int count = umad_get_cas_names(names, UMAD_MAX_DEVICES);
    std::vector<hca_listing> hcas;
    for (int i = 0; i < count; ++i) {
        hca_listing each = describe(names[i]);
        if (std::ranges::any_of(each.ports, is_infiniband)) hcas.push_back(std::move(each));
    }
    if (hcas.empty()) return no_hcas();
    return hcas;
}

ats::result<hca_listing> find_hca(const std::vector<hca_listing>& hcas, const std::string& name)
{
    const auto hca = std::ranges::find(hcas, name, &hca_listing::name);
    if (hca == hcas.end()) return ats::fail("there is no HCA '" + name + "'; there is " + names_text(hcas));
    return *hca;
}

ats::result<> try_port(const std::string& hca, int port)
{
    return device(hca, port).open();
}

ats::result<std::unique_ptr<real_fabric>> open(exec::executor& exec, const fabric_options& options)
{
    const auto hcas = chosen_hcas(options);
    if (!hcas) return ats::pass_on(hcas);
    auto fabric = std::make_unique<umad_fabric>(exec, options);
    for (const hca_listing& each : *hcas)
        if (const auto result = fabric->add(each); !result) return ats::pass_on(result);
    return fabric;
}

} // namespace umad
