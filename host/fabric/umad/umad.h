// Real InfiniBand ports, through libibumad: the other implementation of the fabric boundary. A real fabric is opened
// once for the HCAs that are to be used; each port then has a task of its own, which receives and watches the port.
// Anything that an administrator should know is said in one plain line, once each time it becomes true.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/exec/executor.h"
#include "host/fabric/fabric.h"

namespace umad
{

// What a Delete carries that leaves with P_Key 0, though the SA may look for a record by its whole identifier (IBA
// 15.2.5.14: ServiceID, ServiceGID and P_Key) whatever the component mask selects, as OpenSM does.
enum class delete_p_key {
    automatic, // of a record that was Set through this HCA: the P_Key it was Set with
    on,        // also of a record of one of the HCA's GIDs that an earlier run may have Set: the port's first P_Key
    off,       // 0
};

struct options {
    std::vector<std::string> hcas = {};   // by name; none: all
    uint64_t watch_interval_ticks = 1000; // how often a port is asked for its state
    delete_p_key sa_delete_p_key = delete_p_key::automatic;
    std::function<void(const std::string&)> say = {}; // a line for the administrator; any thread, must not sleep
};

struct traffic_counts {
    uint64_t sent = 0;
    uint64_t refused = 0; // libibumad did not take them
    uint64_t arrived = 0;
    uint64_t timed_out = 0;         // requests that came back because no answer had come
    uint64_t too_short = 0;         // answers shorter than what they are
    uint64_t strays = 0;            // not an answer to a request under way
    uint64_t deletes_completed = 0; // Deletes given a P_Key
};

class real_fabric
{
  public:
    // Nobody may be listening any more. What is still under way is received first, for a short while.
    virtual ~real_fabric() = default;

    // In the order of the options, or by name. They live as long as the fabric.
    virtual std::vector<fabric::hca*> hcas() const = 0;

    // Who sees every datagram as it leaves or arrives, but not those that ports are watched with; null: nobody. When
    // this returns, the one before is not called any more.
    virtual void set_tap(fabric::tap* to) = 0;

    virtual traffic_counts counts() const = 0;
};

// The fabric, or one line that says what is in the way and what to do about it.
struct opened {
    std::unique_ptr<real_fabric> fabric;
    std::string why;
};

// `exec` must run in real time. Takes up to a second for each port that does not tell its state.
opened open(exec::executor& exec, const options& wanted);

// What the machine has, whether it can be opened or not.
struct port_listing {
    int number = 0;
    std::string link_layer = {}; // "InfiniBand", or what libibumad calls it
    std::string device = {};     // the file through which libibumad reaches it, "" if there is none
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
bool is_infiniband(const port_listing& port);
struct listing {
    std::vector<hca_listing> hcas; // with an InfiniBand port at least
    std::string why;               // when there is none: one line that says what to do
};
listing list_hcas();

// Empty: the port could be opened, and was closed again. Or why not, and what to do about it.
std::string try_port(const std::string& hca, int port);

// False: built without libibumad; then open() and list_hcas() say so.
bool is_available();

} // namespace umad
