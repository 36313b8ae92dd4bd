// A whole InfiniBand subnet in memory: the HCAs of hosts, their links, the LIDs that a subnet manager assigns, and a
// Subnet Administrator. A send only queues a datagram. One task, "fabric", delivers one datagram after another, in the
// order of their due ticks, and makes all calls of listeners. The same calls always give the same LIDs and GUIDs.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/exec/executor.h"
#include "host/fabric/embedded/delivery-queue.h"
#include "host/fabric/embedded/faults.h"
#include "host/fabric/embedded/observer.h"
#include "host/fabric/embedded/sa-capacity.h"
#include "host/fabric/embedded/subnet-administrator.h"
#include "host/fabric/embedded/subnet-views.h"
#include "host/fabric/fabric-task.h"
#include "host/fabric/fabric.h"
#include "host/result.h"

namespace embedded
{

struct subnet_options {
    uint64_t gid_prefix = 0xFE80000000000000; // for every GID, IBA 4.1.1
    uint16_t sm_lid = 1;                      // a unicast LID; the SA has the same LID
    uint8_t sm_sl = 0;
    std::vector<uint16_t> p_keys = {0xFFFF}; // for the SA's port, and for the ports of HCAs without their own P_Keys
    uint8_t mtu = 4;                         // PortInfo encoding
    // The maximum number of datagrams in transit; further sends are refused. The default is four for each unicast LID,
    // so that all hosts of the largest subnet can send at once.
    size_t queue_capacity = 4 * size_t{0xBFFF};
    size_t service_record_limit = 65536;
    uint64_t fault_seed = 1;
};

struct hca_description {
    std::string name = "mthca0";
    int ports = 1;
    std::vector<uint64_t> port_guids = {}; // for the first ports; the subnet assigns the GUIDs of the others
    std::vector<uint16_t> p_keys = {};     // for every port; if empty, subnet_options::p_keys
};

class subnet_hca;
struct port_record;

// Any thread may make any call. Calls take the subnet's lock. Only the destructor may sleep.
class subnet
{
  public:
    // Starts the fabric task. `exec` must outlive the subnet. Throws a shortage if the task cannot be created.
    explicit subnet(exec::executor& exec, subnet_options options = {});

    // Ends the fabric task and drops the datagrams in transit. No HCA may be in use any more. The caller is a task that
    // may sleep, or a thread that runs no task.
    ~subnet();
    subnet(const subnet&) = delete;
    subnet& operator=(const subnet&) = delete;

    // Plugs an HCA into a host. Its links are down. The subnet owns the HCA. Ports get the LIDs from 2 upwards, in the
    // order of these calls. The LID of the SM is skipped. Fails if the host already has an HCA with the name, if
    // another port already has a GUID of the description, if the number of ports is not 1 to 254, if there are more
    // GUIDs than ports, or if no LIDs are left.
    ats::result<fabric::hca*> add_hca(const std::string& host, const hca_description& description);
    ats::result<fabric::hca*> add_hca(const std::string& host, const std::string& name, int ports)
    {
        return add_hca(host, hca_description{.name = name, .ports = ports});
    }

    // Returns the HCA with that name. The error lists existing names.
    ats::result<fabric::hca*> find(const std::string& host, const std::string& hca) const;

    // link_up() activates the link of a port: the port learns its own LID and the SM's LID. link_down() takes the link
    // down. Both report an event to the listener even if the state does not change, because a host must accept repeated
    // events. Both fail if there is no such port.
    [[nodiscard]] ats::result<> link_up(const std::string& host, const std::string& hca, int port);
    [[nodiscard]] ats::result<> link_down(const std::string& host, const std::string& hca, int port);

    // After cut_outbound(), every datagram that leaves the port is lost. After cut_inbound(), every datagram that
    // should arrive at the port is lost. A call with false for `is_cut` ends this. The link stays active, and the
    // listener still gets events of the port. Fails if there is no such port.
    [[nodiscard]] ats::result<> cut_outbound(const std::string& host, const std::string& hca, int port, bool is_cut);
    [[nodiscard]] ats::result<> cut_inbound(const std::string& host, const std::string& hca, int port, bool is_cut);

    // Moves the SM and the SA to another LID and SL, and reports this to every active port. The SA keeps its records.
    // Fails if a port has the LID, or if the LID is not a unicast LID.
    [[nodiscard]] ats::result<> set_sm(uint16_t lid, uint8_t sl);

    // Reports to every active port that its host must register again (IBA 14.2.5.6, ClientReregister of PortInfo).
    void request_registrations();

    // Makes the SA lose the records of a GID, or all records. Returns the number of lost records.
    size_t forget(const fabric::gid_bytes& gid);
    size_t forget_all();

    // The number of records at the SA. It may include expired records.
    size_t record_count() const;

    // save_records() returns a copy of the SA's records. restore_records() replaces the SA's records with such a copy,
    // like an SA that restarts from a backup.
    std::vector<ib_service_record_v2_t> save_records() const;
    void restore_records(const std::vector<ib_service_record_v2_t>& records);

    // Passes a request directly to the SA, and replaces it with the answer. Faults of the SA affect the request, except
    // delays. Faults of the wire do not affect it. Returns false if the SA does not answer.
    bool ask_sa(fabric::mad_bytes& mad);

    // The fabric task, for a watchdog.
    fabric::fabric_task task();

    // Sets limits for the speed of the SA, or removes them (nullopt). With limits, the SA serves a request, and sends
    // the answer, at the end of the request's service time. Requests that already wait when the limits change are still
    // served. The counts in sa_queue_counts() start at zero again.
    void set_sa_limits(const std::optional<sa_limits>& limits);
    embedded::sa_queue_counts sa_queue_counts() const; // all zero without limits

    fault_switches faults;
    subnet_counts counts() const;
    fault_effects effects() const; // what `faults` have done so far

    // Sets the tap, or removes it (null). The tap sees every datagram that leaves an active port, and every answer of
    // the SA that reaches a port. The subnet holds its lock while it calls the tap. The caller owns the tap. After
    // set_tap() has returned, the subnet does not call the previous tap any more.
    void set_tap(fabric::tap* tap);

    // Sets the observer, or removes it (null). The caller owns the observer. Before set_observer() returns, the new
    // observer gets the LID of the SM, the state of all ports and all records of the SA. After set_observer() has
    // returned, the subnet does not call the previous observer any more.
    void set_observer(embedded::observer* observer);

    std::vector<port_view> ports() const;                     // in the order of add_hca
    std::vector<service_record_view> service_records() const; // ordered by GID

  private:
    friend class subnet_hca;
    using lock_guard = std::unique_lock<std::mutex>;

    void plug_port(subnet_hca& owner, uint64_t guid, const std::vector<uint16_t>& p_keys);
    ats::result<> check(const std::string& host, const hca_description& description) const;
    ats::result<subnet_hca*> find_hca(const std::string& host, const std::string& hca) const;
    ats::result<port_record*> find_port(const std::string& host, const std::string& hca, int port) const;
    const port_record* port_of(const fabric::gid_bytes& gid) const; // a port in any state, or null
    const port_record* port_of(uint16_t lid) const;
    ats::result<> change_link(const std::string& host, const std::string& hca, int port, fabric::link_state state);
    void announce(const port_record& port, fabric::port_change change);
    void wake_fabric(lock_guard& lock);

    // Called by the HCAs.
    bool send(subnet_hca& hca, int port, const fabric::address& destination, const fabric::mad_bytes& mad);
    void set_listener(subnet_hca& hca, fabric::listener* listener);

    // The fabric task runs this function.
    void run_fabric();

    // The caller of these functions holds the lock. call_listener() releases it while the listener runs.
    bool report_next_change(lock_guard& lock);
    template <class call_t>
    void call_listener(subnet_hca& hca, lock_guard& lock, const call_t& call);
    void deliver(datagram& datagram, lock_guard& lock);
    const char* answer_as_sa(datagram& request);
    const char* serve_as_sa(fabric::mad_bytes& mad);
    bool keep_waiting_for_sa(datagram& datagram);
    void deliver_to_port(datagram& datagram, lock_guard& lock);
    void dispatch(datagram& datagram, uint64_t now_ticks);
    void lose(datagram& datagram, const char* reason);
    void lose_at_cut(port_record& port, datagram& datagram);
    void ignore(datagram& datagram, const char* reason);
    void drop(datagram& datagram, const char* reason, bool has_reached_end);

    // Numbers a datagram and reports it to the observer. Call it before the datagram leaves `sender`. A null sender
    // means the SA.
    void observe_send(datagram& datagram, const port_record* sender)
    {
        datagram.number = ++sent_count_;
        if (observer_) report_send(datagram, sender);
    }
    void observe_arrival(const datagram& datagram, const port_record* receiver)
    {
        if (observer_) report_arrival(datagram, receiver);
    }
    void report_send(const datagram& datagram, const port_record* sender);
    void report_arrival(const datagram& datagram, const port_record* receiver);
    uint64_t due_tick(datagram& datagram, uint64_t now_ticks);
    void count_arrival(const datagram& datagram);
    bool is_send_refused();
    uint64_t service_end_tick(uint64_t now_ticks);
    bool draw(uint32_t percent);

    exec::executor& exec_;
    const subnet_options options_;

    mutable std::mutex mutex_; // guards the following members down to is_stopping_
    std::vector<std::unique_ptr<subnet_hca>> hcas_;
    std::map<std::string, std::vector<subnet_hca*>> hosts_;
    std::vector<port_record*> port_by_lid_;
    std::unordered_map<uint64_t, port_record*> port_by_guid_;
    uint16_t sm_lid_;
    uint8_t sm_sl_;
    uint16_t next_lid_ = 2;
    mutable subnet_administrator sa_; // mutable, because listing the records removes expired ones
    subnet_counts counts_;
    fault_effects effects_;
    uint64_t departure_count_ = 0;
    uint64_t latest_arrived_departure_ = 0;
    uint64_t sent_count_ = 0; // number of datagrams that hosts and the SA have sent
    fabric::tap* tap_ = nullptr;
    embedded::observer* observer_ = nullptr;

    struct pending_change {
        subnet_hca* hca;
        int port;
        fabric::port_change change;
        uint16_t sm_lid;
    };
    std::deque<pending_change> changes_; // the fabric task reports them before it delivers the next datagram
    delivery_queue queue_;
    uint64_t sa_busy_until_tick_ = 0;
    std::optional<sa_queue> sa_queue_; // none if the SA has no limits
    std::mt19937_64 dice_;
    subnet_hca* called_hca_ = nullptr; // the HCA whose listener is running
    bool is_asleep_ = false;           // the fabric task is parked, and wake_fabric() has not woken it
    bool is_stopping_ = false;
    exec::task* fabric_task_ = nullptr;
    std::atomic<uint64_t> rounds_{0}; // rounds of the fabric task's loop
};

} // namespace embedded
