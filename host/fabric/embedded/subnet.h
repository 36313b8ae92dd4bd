// A whole InfiniBand subnet in memory: hosts' HCAs, links, the addresses that a subnet manager assigns, and a Subnet
// Administrator. One task of the world, "fabric", carries datagrams and tells listeners, one thing after another in
// the order in which they are due; nothing is delivered inside a send. What has been set up decides everything: the
// same calls give the same LIDs and GUIDs.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/exec/executor.h"
#include "host/fabric/embedded/delivery-queue.h"
#include "host/fabric/embedded/faults.h"
#include "host/fabric/embedded/subnet-administrator.h"
#include "host/fabric/embedded/subnet-views.h"
#include "host/fabric/fabric.h"
#include "host/result.h"

namespace embedded
{

struct subnet_options {
    uint64_t gid_prefix = 0xFE80000000000000; // of every GID, IBA 4.1.1
    uint16_t sm_lid = 1;                      // the SA's too
    uint8_t sm_sl = 0;
    std::vector<uint16_t> p_keys = {0xFFFF}; // of the SA's port, and of every port that names none of its own
    uint8_t mtu = 4;                         // PortInfo encoding
    size_t queue_capacity = 4096;            // datagrams under way; more are not accepted
    size_t service_record_limit = 65536;
    uint64_t fault_seed = 1;
};

struct hca_description {
    std::string name = "mthca0";
    int ports = 1;
    std::vector<uint64_t> port_guids = {}; // of the first ports; the others get one
    std::vector<uint16_t> p_keys = {};     // of every port; none: the subnet's
};

class subnet_hca;
struct port_record;

// Every call may come from any thread.
class subnet
{
  public:
    explicit subnet(exec::executor& exec, subnet_options options = {});

    // No HCA may be in use any more. What is under way is lost. Called by a task, or from outside.
    ~subnet();
    subnet(const subnet&) = delete;
    subnet& operator=(const subnet&) = delete;

    // Plugs an HCA into a host; its links are down. The subnet owns it. Ports get the LIDs from 2 upwards in the order
    // of these calls. Fails on a name that the host has already, on the GUID of another port, on a number of ports
    // outside 1 to 254, and when no LIDs are left.
    ats::result<fabric::hca*> add_hca(const std::string& host, const hca_description& description);
    ats::result<fabric::hca*> add_hca(const std::string& host, const std::string& name, int ports)
    {
        return add_hca(host, hca_description{.name = name, .ports = ports});
    }

    // The HCA of that name. The error lists the names that there are.
    ats::result<fabric::hca*> find(const std::string& host, const std::string& hca) const;

    // Brings a link up, and the port learns its LID and the SM's; or takes it down. The listener is called even when
    // nothing changes: a host must accept repeated events. Fails when there is no such port.
    [[nodiscard]] ats::result<> link_up(const std::string& host, const std::string& hca, int port);
    [[nodiscard]] ats::result<> link_down(const std::string& host, const std::string& hca, int port);

    // Moves the SM and the SA to another LID, and reports that to every active port. The records stay (see
    // forget_all). Fails on the LID of a port and on a LID that is not unicast.
    [[nodiscard]] ats::result<> set_sm(uint16_t lid, uint8_t sl);

    // Amnesia: the SA loses a GID's records, or all. Returns how many.
    size_t forget(const fabric::gid_bytes& gid);
    size_t forget_all();

    // What the SA holds, to be kept; and an SA that comes back with that, whatever has been set and deleted since.
    std::vector<ib_service_record_v2_t> save_records() const;
    void restore_records(const std::vector<ib_service_record_v2_t>& saved);

    // Asks the SA from its own node, where no wire loses anything: answers `mad` in place. The SA's own faults hold.
    // False: it does not answer.
    bool ask_sa(fabric::mad_bytes& mad);

    fault_switches faults;
    traffic_counts counts() const;
    fault_effects effects() const; // of `faults`, so far

    // Who sees every datagram once, as it crosses between a host and the fabric; null: nobody. It is called with the
    // fabric's lock held. When this returns, the one before is not called any more.
    void set_tap(fabric::tap* to);

    // In the order of add_hca, and by GID.
    std::vector<port_view> ports() const;
    std::vector<service_record_view> service_records() const;

  private:
    friend class subnet_hca;
    using lock_guard = std::unique_lock<std::mutex>;

    void plug_port(subnet_hca& owner, uint64_t guid, const std::vector<uint16_t>& p_keys);
    ats::result<> check(const std::string& host, const hca_description& description) const;
    ats::result<subnet_hca*> find_hca(const std::string& host, const std::string& hca) const;
    ats::result<port_record*> find_port(const std::string& host, const std::string& hca, int port) const;
    ats::result<> change_link(const std::string& host, const std::string& hca, int port, fabric::link_state state);
    void announce(const port_record& port, fabric::port_change change);
    void wake_fabric(lock_guard& lock);

    // Called by the HCAs.
    bool send(subnet_hca& from, int port, const fabric::address& destination, const fabric::mad_bytes& mad);
    void set_listener(subnet_hca& of, fabric::listener* to);

    // The fabric task. `lock` is held on entry and return; each lets go of it only to call a listener.
    void carry();
    bool tell_next_change(lock_guard& lock);
    template <class call_t>
    void call_listener(subnet_hca& at, lock_guard& lock, const call_t& call);
    void deliver(datagram& arriving, lock_guard& lock);
    bool answer_as_sa(datagram& request);
    bool serve_as_sa(fabric::mad_bytes& mad);
    void deliver_to_port(datagram& arriving, lock_guard& lock);
    void set_out(datagram& leaving, uint64_t now_ticks);
    void lose(datagram& lost);
    uint64_t due_tick(datagram& leaving, uint64_t now_ticks);
    void count_arrival(const datagram& arrived);
    bool is_refused();
    uint64_t served_tick(uint64_t now_ticks);
    bool chance(uint32_t percent);

    exec::executor& exec_;
    const subnet_options options_;

    mutable std::mutex mutex_; // all below
    std::vector<std::unique_ptr<subnet_hca>> hcas_;
    std::map<std::string, std::vector<subnet_hca*>> hosts_;
    std::vector<port_record*> port_by_lid_;
    std::unordered_map<uint64_t, port_record*> port_by_guid_;
    uint16_t sm_lid_;
    uint8_t sm_sl_;
    uint16_t next_lid_ = 2;
    mutable subnet_administrator sa_; // listing the records expires them
    traffic_counts counts_;
    fault_effects effects_;
    uint64_t departures_ = 0;
    uint64_t latest_departure_arrived_ = 0;
    fabric::tap* tap_ = nullptr;

    struct pending_change {
        subnet_hca* at;
        int port;
        fabric::port_change change;
        uint16_t sm_lid;
    };
    std::deque<pending_change> changes_; // told before any datagram is delivered
    delivery_queue queue_;
    uint64_t sa_busy_until_tick_ = 0;
    std::mt19937_64 dice_;
    subnet_hca* calling_ = nullptr; // whose listener is running
    bool asleep_ = false;           // the fabric task has parked, and nobody has woken it since
    bool stopping_ = false;
    exec::task* fabric_task_ = nullptr;
};

} // namespace embedded
