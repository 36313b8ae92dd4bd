// Real InfiniBand ports, through libibumad. This is the second implementation of fabric.h; host/fabric/embedded is the
// first. A program opens one real fabric for all HCAs that it uses. Each port has its own task, which receives
// datagrams and watches the port. The fabric reports each change of a port's state to the administrator in one line.
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

// A host sends a Delete with the P_Key 0 in the record. Some SAs (OpenSM) search for the record by its whole
// identifier: ServiceID, ServiceGID and P_Key (IBA 15.2.5.14), even if the component mask omits the P_Key. Therefore
// the fabric can replace the 0 before it sends the Delete.
enum class delete_p_key {
    automatic, // replace it by the P_Key of the record, if the record was Set through this HCA in this run
    on,        // like `automatic`; for any other record with a GID of the port, replace it by the port's first P_Key
    off,       // never replace it
};

// A line for the administrator about a port, or about a whole HCA (port 0). `text` already contains their names.
struct port_remark {
    std::string hca;
    int port = 0;
    std::string text;
};

struct fabric_options {
    std::vector<std::string> hcas = {}; // names; if empty, all HCAs
    // A port is asked for its attributes once in this time, or less often if libibverbs reports the events of its HCA.
    uint64_t watch_interval_ticks = 100;
    delete_p_key sa_delete_p_key = delete_p_key::automatic;
    std::function<void(const port_remark&)> report = {}; // called in any thread; must not sleep
};

struct datagram_counts {
    uint64_t sent = 0;
    uint64_t refused = 0; // datagrams that libibumad did not accept
    uint64_t arrived = 0;
    uint64_t timed_out = 0;         // requests that the kernel returned without an answer
    uint64_t too_short = 0;         // answers that ended too early; they were ignored
    uint64_t strays = 0;            // datagrams that answered no request in flight; they were ignored
    uint64_t deletes_completed = 0; // Deletes into which the fabric wrote a P_Key (see delete_p_key)
};

class real_fabric
{
  public:
    // Remove all listeners before you destroy the fabric. The destructor waits a short time for datagrams in flight,
    // and may sleep.
    virtual ~real_fabric() = default;

    // The HCAs in the order of fabric_options::hcas; if that list is empty, in the order of their names. They are valid
    // as long as the fabric exists.
    virtual std::vector<fabric::hca*> hcas() const = 0;

    // Sets the tap, or removes it (null). The tap sees every datagram that hca::send() passes to libibumad, even if
    // libibumad does not accept it. The tap also sees every datagram that arrives for the listener of an HCA. The
    // caller owns the tap. After set_tap() has returned, the fabric does not call the previous tap any more.
    virtual void set_tap(fabric::tap* tap) = 0;

    virtual datagram_counts counts() const = 0;

    // The tasks of the ports, and the tasks that receive the events of the HCAs. For a watchdog.
    virtual std::vector<fabric::fabric_task> tasks() = 0;
};

// Opens the ports of the selected HCAs. `exec` must run in real time, and must outlive the fabric. Waits at most a
// second for each port until it reports its state. The error is one line for people. Throws a shortage if a task cannot
// be created.
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

// Returns true if the port can be part of a fabric: it is not Ethernet, and it has a management device.
bool is_infiniband(const port_listing& port);

// The HCAs of this machine with at least one InfiniBand port. If there is none, fails with a text that says what to do.
ats::result<std::vector<hca_listing>> list_hcas();

// Returns the HCA with that name. If there is none, fails with a text that lists the names of `hcas`.
ats::result<hca_listing> find_hca(const std::vector<hca_listing>& hcas, const std::string& name);

// Opens the port and closes it again. The error is one line for people.
ats::result<> try_port(const std::string& hca, int port);

// Returns false in a build without libibumad. Then is_infiniband() returns false, and the other functions fail with an
// error that explains it.
bool is_available();

} // namespace umad
