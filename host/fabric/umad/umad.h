// Real InfiniBand ports, through libibumad: the second implementation of the fabric boundary. A real fabric is opened
// once for all HCAs in use. Each port has a task of its own, which receives and watches the port. Each change of state
// is reported to the administrator in one plain line.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/exec/executor.h"
#include "host/fabric/fabric-task.h"
#include "host/fabric/fabric.h"
#include "host/result.h"

namespace umad
{

// Chooses the P_Key that replaces the P_Key 0 in a host's Delete. Some SAs (OpenSM) search for the record by its whole
// identifier, ServiceID, ServiceGID and P_Key (IBA 15.2.5.14), even if the component mask omits the P_Key.
enum class delete_p_key {
    automatic, // the P_Key of the record, if it was Set through this HCA; else 0
    on,        // the same; if it was not Set in this run, but the GID is the port's: the port's first P_Key
    off,       // 0
};

// A line for the administrator about a port, or about the whole HCA (port 0). The text names them.
struct port_remark {
    std::string hca;
    int port = 0;
    std::string text;
};

struct fabric_options {
    std::vector<std::string> hcas = {};  // names; if empty, all HCAs
    uint64_t watch_interval_ticks = 100; // how often a port is asked for its state
    delete_p_key sa_delete_p_key = delete_p_key::automatic;
    std::function<void(const port_remark&)> report = {}; // any thread, must not sleep
};

struct datagram_counts {
    uint64_t sent = 0;
    uint64_t refused = 0; // datagrams that libibumad did not accept
    uint64_t arrived = 0;
    uint64_t timed_out = 0;         // requests that came back without an answer
    uint64_t too_short = 0;         // answers shorter than a record
    uint64_t strays = 0;            // datagrams that answer no request in flight
    uint64_t deletes_completed = 0; // Deletes that received a P_Key
};

class real_fabric
{
  public:
    // Stop all listeners first. The destructor receives datagrams in flight for a short time.
    virtual ~real_fabric() = default;

    // The HCAs in the order of the options, or by name. They live as long as the fabric.
    virtual std::vector<fabric::hca*> hcas() const = 0;

    // Sets the tap, or removes it (null). The tap sees every datagram that leaves or arrives, except the questions and
    // answers of the port watch. After the return, the previous tap is not called any more.
    virtual void set_tap(fabric::tap* tap) = 0;

    virtual datagram_counts counts() const = 0;

    // The tasks that receive at the ports and call listeners.
    virtual std::vector<fabric::fabric_task> tasks() = 0;
};

// Opens the ports of the selected HCAs. `exec` must run in real time. Waits up to a second for each port that does not
// report its state. The error says what to do.
ats::result<std::unique_ptr<real_fabric>> open(exec::executor& exec, const fabric_options& options);

// A port of this machine, even if it cannot be opened.
struct port_listing {
    int number = 0;
    std::string link_layer = {}; // "InfiniBand", or another word from libibumad
    std::string device = {};     // the file through which libibumad reaches it, or ""
    fabric::link_state state = fabric::link_state::down;
    uint16_t lid = 0;
    uint16_t sm_lid = 0;
    uint8_t sm_sl = 0;
    fabric::gid_bytes gid{};
};
struct hca_listing {
    std::string name;
    std::vector<port_listing> ports;
};

// The state of a port's link, for people.
constexpr const char* link_down_text = "the link is down: check the cable and the switch port";
inline std::string active_text(uint16_t lid, uint16_t sm_lid)
{
    return "active with LID " + std::to_string(lid) + ", the SM at LID " + std::to_string(sm_lid);
}

// Returns true if the port can be part of a fabric: it is InfiniBand and has a management device.
bool is_infiniband(const port_listing& port);

// The HCAs of this machine with at least one InfiniBand port. If there is none, fails with a text that says what to do.
ats::result<std::vector<hca_listing>> list_hcas();

// Opens the port and closes it again. The error says what to do.
ats::result<> try_port(const std::string& hca, int port);

// Returns false in a build without libibumad. The calls above then fail with an error that explains it.
bool is_available();

} // namespace umad
