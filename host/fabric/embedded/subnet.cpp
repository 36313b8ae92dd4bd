#include "host/fabric/embedded/subnet.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "host/fabric/embedded/subnet-hca.h"

namespace embedded
{

namespace
{

constexpr uint16_t last_unicast_lid = 0xBFFF; // IBA 4.1.3
constexpr int last_port = 254;                // IBA 14.2.5.3: port numbers are bytes, and 255 is not a port
constexpr size_t listed_names_limit = 8;      // the number of names in an error text

// Returns a locally administered EUI-64 that contains the number of the HCA in the subnet and the number of the port.
uint64_t assigned_guid(size_t hca_number, int port)
{
    return 0x0200000000000000 | static_cast<uint64_t>(hca_number) << 16 | static_cast<uint64_t>(port);
}

bool is_unicast(uint16_t lid)
{
    return lid >= 1 && lid <= last_unicast_lid;
}

// The name of an HCA in error texts.
std::string title(const std::string& host, const hca_description& description)
{
    return description.name + " of " + host;
}

// A list of names for an error text, for example "node1, node2, node3". A long list ends with "and 5 more".
class name_list
{
  public:
    void add(const std::string& name)
    {
        if (++count_ <= listed_names_limit) text_ += (count_ == 1 ? "" : ", ") + name;
    }
    std::string text() const
    {
        return count_ <= listed_names_limit ? text_
                                            : text_ + " and " + std::to_string(count_ - listed_names_limit) + " more";
    }

  private:
    size_t count_ = 0;
    std::string text_;
};

} // namespace

subnet::subnet(exec::executor& exec, subnet_options options)
    : exec_(exec), options_(std::move(options)), sm_lid_(options_.sm_lid), sm_sl_(options_.sm_sl),
      sa_(options_.service_record_limit,
          {.by_gid = [this](const fabric::gid_bytes& gid) { return port_of(gid); },
           .by_lid = [this](uint16_t lid) { return port_of(lid); }},
          {.mtu = options_.mtu}),
      queue_(options_.queue_capacity), dice_(options_.fault_seed)
{
    assert(is_unicast(sm_lid_));
    fabric_task_ = &exec_.start(nullptr, "fabric", [this] { run_fabric(); });
}

subnet::~subnet()
{
    {
        lock_guard lock(mutex_);
        is_stopping_ = true;
    }
    exec_.wake(*fabric_task_);
    exec_.join(*fabric_task_);
}

fabric::fabric_task subnet::task()
{
    return {.name = "the fabric's task",
            .wake = [this] { exec_.wake(*fabric_task_); },
            .rounds = [this] { return rounds_.load(std::memory_order_relaxed); }};
}

ats::result<fabric::hca*> subnet::add_hca(const std::string& host, const hca_description& description)
{
    lock_guard lock(mutex_);
    if (const ats::result<> result = check(host, description); !result) return ats::pass_on(result);

    std::vector<uint64_t> guids = description.port_guids;
    for (int port = static_cast<int>(guids.size()) + 1; port <= description.ports; ++port)
        guids.push_back(assigned_guid(hcas_.size() + 1, port));
    for (auto guid = guids.begin(); guid != guids.end(); ++guid)
        if (port_by_guid_.contains(*guid) || std::find(guids.begin(), guid, *guid) != guid)
            return ats::fail(ats::error_kind::exists, title(host, description) + " has the port GUID of another port");

    hcas_.push_back(std::make_unique<subnet_hca>(*this, host, description.name, description.ports));
    for (const uint64_t guid : guids) plug_port(*hcas_.back(), guid, description.p_keys);
    hosts_[host].push_back(hcas_.back().get());
    return hcas_.back().get();
}

// Makes all checks of add_hca() except one: add_hca() itself checks if another port has one of the GUIDs.
ats::result<> subnet::check(const std::string& host, const hca_description& description) const
{
    using enum ats::error_kind;
    if (description.ports < 1 || description.ports > last_port)
        return ats::fail(invalid, title(host, description) + " must have 1 to 254 ports");
    if (description.port_guids.size() > static_cast<size_t>(description.ports))
        return ats::fail(invalid, title(host, description) + " has more port GUIDs than ports");
    if (next_lid_ + description.ports > last_unicast_lid)
        return ats::fail(title(host, description) + ": no LIDs are left");
    if (const auto entry = hosts_.find(host); entry != hosts_.end())
        for (const subnet_hca* other : entry->second)
            if (other->name() == description.name) return ats::fail(exists, host + " has two HCAs " + other->name());
    return {};
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

const port_record* subnet::port_of(const fabric::gid_bytes& gid) const
{
    uint64_t guid;
    memcpy(&guid, gid.data() + 8, sizeof guid);
    const auto port = port_by_guid_.find(__builtin_bswap64(guid));
    return port != port_by_guid_.end() && port->second->gid == gid ? port->second : nullptr;
}

const port_record* subnet::port_of(uint16_t lid) const
{
    return lid < port_by_lid_.size() ? port_by_lid_[lid] : nullptr;
}

ats::result<fabric::hca*> subnet::find(const std::string& host, const std::string& hca) const
{
    lock_guard lock(mutex_);
    return find_hca(host, hca);
}

ats::result<subnet_hca*> subnet::find_hca(const std::string& host, const std::string& hca) const
{
    using enum ats::error_kind;
    name_list names;
    const auto entry = hosts_.find(host);
    if (entry == hosts_.end()) {
        if (hosts_.empty()) return ats::fail(not_found, "there are no hosts");
        for (const auto& [name, hcas] : hosts_) names.add(name);
        return ats::fail(not_found, "there is no host '" + host + "'; there are " + names.text());
    }
    for (subnet_hca* each : entry->second) {
        if (each->name() == hca) return each;
        names.add(each->name());
    }
    return ats::fail(not_found, host + " has no HCA '" + hca + "'; it has " + names.text());
}

ats::result<port_record*> subnet::find_port(const std::string& host, const std::string& hca, int port) const
{
    const ats::result<subnet_hca*> owner = find_hca(host, hca);
    if (!owner) return ats::pass_on(owner);
    const int count = (*owner)->port_count();
    if (port >= 1 && port <= count) return &(*owner)->ports[static_cast<size_t>(port - 1)];
    return ats::fail(ats::error_kind::not_found,
                     hca + " of " + host + " has no port " + std::to_string(port) +
                         (count == 1 ? "; its only port is 1" : "; its ports are 1 to " + std::to_string(count)));
}

ats::result<> subnet::link_up(const std::string& host, const std::string& hca, int port)
{
    return change_link(host, hca, port, fabric::link_state::active);
}

ats::result<> subnet::link_down(const std::string& host, const std::string& hca, int port)
{
    return change_link(host, hca, port, fabric::link_state::down);
}

ats::result<> subnet::change_link(const std::string& host, const std::string& hca, int number, fabric::link_state state)
{
    lock_guard lock(mutex_);
    const ats::result<port_record*> record = find_port(host, hca, number);
    if (!record) return ats::pass_on(record);
    port_record& port = **record;
    port.state = state;
    if (port.is_active()) {
        port.lid = port.assigned_lid;
        port.sm_lid = sm_lid_;
        port.sm_sl = sm_sl_;
    }
    if (observer_) observer_->port_changed(exec_.now(), view_of(port));
    announce(port, port.is_active() ? fabric::port_change::link_up : fabric::port_change::link_down);
    wake_fabric(lock);
    return {};
}

ats::result<> subnet::cut_outbound(const std::string& host, const std::string& hca, int port, bool is_cut)
{
    const lock_guard lock(mutex_);
    const ats::result<port_record*> record = find_port(host, hca, port);
    if (!record) return ats::pass_on(record);
    (*record)->is_cut_outbound = is_cut;
    return {};
}

ats::result<> subnet::cut_inbound(const std::string& host, const std::string& hca, int port, bool is_cut)
{
    const lock_guard lock(mutex_);
    const ats::result<port_record*> record = find_port(host, hca, port);
    if (!record) return ats::pass_on(record);
    (*record)->is_cut_inbound = is_cut;
    return {};
}

ats::result<> subnet::set_sm(uint16_t lid, uint8_t sl)
{
    lock_guard lock(mutex_);
    if (!is_unicast(lid))
        return ats::fail(ats::error_kind::invalid,
                         "LID " + std::to_string(lid) + " is not one of the unicast LIDs 1 to 49151");
    if (lid < port_by_lid_.size() && port_by_lid_[lid]) {
        const port_record& port = *port_by_lid_[lid];
        return ats::fail(ats::error_kind::exists, "LID " + std::to_string(lid) + " is that of port " +
                                                      std::to_string(port.number) + " of " + port.owner->name() +
                                                      " of " + port.owner->host);
    }
    sm_lid_ = lid;
    sm_sl_ = sl;
    if (observer_) observer_->sm_moved(exec_.now(), lid);
    for (const auto& hca : hcas_) {
        for (port_record& port : hca->ports) {
            if (!port.is_active()) continue;
            port.sm_lid = lid;
            port.sm_sl = sl;
            announce(port, fabric::port_change::sm_change);
        }
    }
    wake_fabric(lock);
    return {};
}

void subnet::request_registrations()
{
    lock_guard lock(mutex_);
    for (const auto& hca : hcas_)
        for (const port_record& port : hca->ports)
            if (port.is_active()) announce(port, fabric::port_change::reregister);
    wake_fabric(lock);
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

void subnet::restore_records(const std::vector<ib_service_record_v2_t>& records)
{
    lock_guard lock(mutex_);
    sa_.records.clear(exec_.now());
    for (const ib_service_record_v2_t& record : records) sa_.records.set(record, exec_.now());
}

size_t subnet::record_count() const
{
    const lock_guard lock(mutex_);
    return sa_.records.size();
}

void subnet::set_sa_limits(const std::optional<sa_limits>& limits)
{
    const lock_guard lock(mutex_);
    sa_queue_.reset();
    if (limits) sa_queue_.emplace(*limits);
}

sa_queue_counts subnet::sa_queue_counts() const
{
    const lock_guard lock(mutex_);
    return sa_queue_ ? sa_queue_->counts() : embedded::sa_queue_counts();
}

subnet_counts subnet::counts() const
{
    lock_guard lock(mutex_);
    return counts_;
}

fault_effects subnet::effects() const
{
    lock_guard lock(mutex_);
    return effects_;
}

void subnet::set_tap(fabric::tap* tap)
{
    lock_guard lock(mutex_);
    tap_ = tap;
}

void subnet::set_observer(embedded::observer* observer)
{
    lock_guard lock(mutex_);
    observer_ = observer;
    sa_.records.on_change = nullptr;
    if (!observer) return;
    observer->sm_moved(exec_.now(), sm_lid_);
    for (const auto& hca : hcas_)
        for (const port_record& port : hca->ports) observer->port_changed(exec_.now(), view_of(port));
    for (const ib_service_record_v2_t& record : sa_.records.all(exec_.now()))
        observer->record_stored(exec_.now(), record);
    sa_.records.on_change = [this](const ib_service_record_v2_t& record, bool is_stored) {
        if (is_stored)
            observer_->record_stored(exec_.now(), record);
        else
            observer_->record_removed(exec_.now(), record);
    };
}

std::vector<port_view> subnet::ports() const
{
    lock_guard lock(mutex_);
    std::vector<port_view> list;
    for (const auto& hca : hcas_)
        for (const port_record& port : hca->ports) list.push_back(view_of(port));
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
