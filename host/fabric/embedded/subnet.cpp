#include "host/fabric/embedded/subnet.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "host/fabric/embedded/subnet-hca.h"

namespace embedded
{

namespace
{

constexpr uint16_t last_unicast_lid = 0xBFFF; // IBA 4.1.3
constexpr int last_port = 254;                // IBA 14.2.5.3: port numbers are bytes, and 255 is none
constexpr size_t names_told = 8;              // of those that an error lists

// A locally administered EUI-64 that tells which HCA of the subnet and which of its ports it is.
uint64_t assigned_guid(size_t hca_number, int port)
{
    return 0x0200000000000000 | static_cast<uint64_t>(hca_number) << 16 | static_cast<uint64_t>(port);
}

bool is_unicast(uint16_t lid)
{
    return lid >= 1 && lid <= last_unicast_lid;
}

// "node1, node2, node3"; of many, the first ones.
class name_list
{
  public:
    void add(const std::string& name)
    {
        if (++count_ <= names_told) text_ += (count_ == 1 ? "" : ", ") + name;
    }
    std::string text() const
    {
        return count_ <= names_told ? text_ : text_ + " and " + std::to_string(count_ - names_told) + " more";
    }

  private:
    size_t count_ = 0;
    std::string text_;
};

} // namespace

subnet::subnet(exec::executor& exec, subnet_options options)
    : exec_(exec), options_(std::move(options)), sm_lid_(options_.sm_lid), sm_sl_(options_.sm_sl),
      sa_(options_.service_record_limit,
          [this](const fabric::gid_bytes& gid) {
              uint64_t guid;
              memcpy(&guid, gid.data() + 8, sizeof guid);
              const auto port = port_by_guid_.find(__builtin_bswap64(guid));
              return port != port_by_guid_.end() && port->second->gid == gid;
          }),
      queue_(options_.queue_capacity), dice_(options_.fault_seed)
{
    if (!is_unicast(sm_lid_)) throw std::invalid_argument("the SM's LID must be 1 to 49151");
    fabric_task_ = &exec_.start(nullptr, "fabric", [this] { carry(); });
}

subnet::~subnet()
{
    {
        lock_guard lock(mutex_);
        stopping_ = true;
    }
    exec_.wake(*fabric_task_);
    exec_.join(*fabric_task_);
}

fabric::hca& subnet::add_hca(const std::string& host, const hca_description& description)
{
    lock_guard lock(mutex_);
    const std::string called = description.name + " of " + host;
    if (description.ports < 1 || description.ports > last_port)
        throw std::invalid_argument(called + " must have 1 to 254 ports");
    if (description.port_guids.size() > static_cast<size_t>(description.ports))
        throw std::invalid_argument(called + " has more port GUIDs than ports");
    if (next_lid_ + description.ports > last_unicast_lid) throw std::length_error(called + ": no LIDs are left");
    if (const auto known = hosts_.find(host); known != hosts_.end())
        for (const subnet_hca* other : known->second)
            if (other->name() == description.name) throw std::invalid_argument(host + " has two HCAs " + other->name());

    std::vector<uint64_t> guids = description.port_guids;
    for (int port = static_cast<int>(guids.size()) + 1; port <= description.ports; ++port)
        guids.push_back(assigned_guid(hcas_.size() + 1, port));
    for (auto guid = guids.begin(); guid != guids.end(); ++guid)
        if (port_by_guid_.contains(*guid) || std::find(guids.begin(), guid, *guid) != guid)
            throw std::invalid_argument(called + " has the port GUID of another port");

    hcas_.push_back(std::make_unique<subnet_hca>(*this, host, description.name, description.ports));
    for (const uint64_t guid : guids) plug_port(*hcas_.back(), guid, description.p_keys);
    hosts_[host].push_back(hcas_.back().get());
    return *hcas_.back();
}

std::vector<fabric::hca*> subnet::add_host(const std::string& host, const std::vector<hca_description>& hcas)
{
    std::vector<fabric::hca*> plugged;
    for (const hca_description& each : hcas) plugged.push_back(&add_hca(host, each));
    return plugged;
}

void subnet::plug_port(subnet_hca& owner, uint64_t guid, const std::vector<uint16_t>& p_keys)
{
    if (next_lid_ == sm_lid_) ++next_lid_;
    const uint16_t lid = next_lid_++;
    owner.ports.push_back({.owner = &owner,
                           .number = owner.port_count() + 1,
                           .assigned_lid = lid,
                           .gid = fabric::make_gid(options_.gid_prefix, guid),
                           .p_keys = p_keys.empty() ? options_.p_keys : p_keys});
    port_by_lid_.resize(std::max<size_t>(port_by_lid_.size(), lid + 1u));
    port_by_lid_[lid] = &owner.ports.back();
    port_by_guid_[guid] = &owner.ports.back();
}

hca_lookup subnet::find(const std::string& host, const std::string& hca) const
{
    lock_guard lock(mutex_);
    hca_lookup result;
    result.hca = find_hca(host, hca, result.why);
    return result;
}

subnet_hca* subnet::find_hca(const std::string& host, const std::string& hca, std::string& why) const
{
    name_list known;
    const auto found = hosts_.find(host);
    if (found == hosts_.end()) {
        for (const auto& [name, hcas] : hosts_) known.add(name);
        why = hosts_.empty() ? "there are no hosts" : "there is no host '" + host + "'; there are " + known.text();
        return nullptr;
    }
    for (subnet_hca* each : found->second) {
        if (each->name() == hca) return each;
        known.add(each->name());
    }
    why = host + " has no HCA '" + hca + "'; it has " + known.text();
    return nullptr;
}

port_record* subnet::find_port(const std::string& host, const std::string& hca, int port, std::string& why) const
{
    subnet_hca* at = find_hca(host, hca, why);
    if (!at) return nullptr;
    if (port >= 1 && port <= at->port_count()) return &at->ports[static_cast<size_t>(port - 1)];
    why = hca + " of " + host + " has no port " + std::to_string(port) +
          (at->port_count() == 1 ? "; its only port is 1" : "; its ports are 1 to " + std::to_string(at->port_count()));
    return nullptr;
}

outcome subnet::link_up(const std::string& host, const std::string& hca, int port)
{
    return change_link(host, hca, port, fabric::link_state::active);
}

outcome subnet::link_down(const std::string& host, const std::string& hca, int port)
{
    return change_link(host, hca, port, fabric::link_state::down);
}

outcome subnet::change_link(const std::string& host, const std::string& hca, int port, fabric::link_state state)
{
    lock_guard lock(mutex_);
    outcome result;
    port_record* changed = find_port(host, hca, port, result.why);
    if (!changed) return result;
    changed->state = state;
    if (changed->is_active()) {
        changed->lid = changed->assigned_lid;
        changed->sm_lid = sm_lid_;
        changed->sm_sl = sm_sl_;
    }
    announce(*changed, changed->is_active() ? fabric::port_change::link_up : fabric::port_change::link_down);
    wake_fabric(lock);
    return result;
}

outcome subnet::set_sm(uint16_t lid, uint8_t sl)
{
    lock_guard lock(mutex_);
    if (!is_unicast(lid)) return {"LID " + std::to_string(lid) + " is not one of the unicast LIDs 1 to 49151"};
    if (lid < port_by_lid_.size() && port_by_lid_[lid]) {
        const port_record& taken = *port_by_lid_[lid];
        return {"LID " + std::to_string(lid) + " is that of port " + std::to_string(taken.number) + " of " +
                taken.owner->name() + " of " + taken.owner->host};
    }
    sm_lid_ = lid;
    sm_sl_ = sl;
    for (const auto& each : hcas_) {
        for (port_record& port : each->ports) {
            if (!port.is_active()) continue;
            port.sm_lid = lid;
            port.sm_sl = sl;
            announce(port, fabric::port_change::sm_change);
        }
    }
    wake_fabric(lock);
    return {};
}

void subnet::announce(const port_record& port, fabric::port_change change)
{
    changes_.push_back({port.owner, port.number, change, port.sm_lid});
}

size_t subnet::forget(const fabric::gid_bytes& gid)
{
    lock_guard lock(mutex_);
    return sa_.records.forget(gid, exec_.now());
}

size_t subnet::forget_all()
{
    lock_guard lock(mutex_);
    return sa_.records.clear(exec_.now());
}

std::vector<ib_service_record_v2_t> subnet::save_records() const
{
    lock_guard lock(mutex_);
    return sa_.records.all(exec_.now());
}

void subnet::restore_records(const std::vector<ib_service_record_v2_t>& saved)
{
    lock_guard lock(mutex_);
    sa_.records.clear(exec_.now());
    for (const ib_service_record_v2_t& record : saved) sa_.records.set(record, exec_.now());
}

traffic_counts subnet::counts() const
{
    lock_guard lock(mutex_);
    return counts_;
}

fault_effects subnet::effects() const
{
    lock_guard lock(mutex_);
    return effects_;
}

void subnet::set_tap(fabric::tap* to)
{
    lock_guard lock(mutex_);
    tap_ = to;
}

std::vector<port_view> subnet::ports() const
{
    lock_guard lock(mutex_);
    std::vector<port_view> list;
    for (const auto& each : hcas_)
        for (const port_record& port : each->ports)
            list.push_back(
                {each->host, each->name(), port.number, port.state, port.lid, port.sm_lid, text_of(port.gid)});
    return list;
}

std::vector<service_record_view> subnet::service_records() const
{
    lock_guard lock(mutex_);
    std::vector<service_record_view> list;
    for (const ib_service_record_v2_t& record : sa_.records.all(exec_.now())) list.push_back(view_of(record));
    return list;
}

} // namespace embedded
