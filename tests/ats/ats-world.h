// Hosts that run the real ats.so on one subnet in memory. A scenario makes things happen at given ticks. The world
// records the requests to the SA and the log of each host as text for comparison:
//
//     node1.link_up(2);
//     EXPECT_THAT(w.requests(), ElementsAre("0 node1.2 DELETE none", "0 node1.2 SET node1.2 10.0.0.1 node1"));
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/fabric/embedded/subnet.h"
#include "host/world/host.h"
#include "host/world/module-folder.h"
#include "host/world/text.h"
#include "kernel/sync.h"
#include "tests/ats/recording-peers.h"
#include "tests/fabric/requests.h"

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr uint64_t host_random_seed = 7; // the same for every host

constexpr int trace_error = 1, trace_debug = 4, trace_func = 5;

struct host_setup {
    std::string name = "node1";
    std::string address = "10.0.0.1";
    std::vector<int> ports = {1}; // number of ports of the HCAs mthca0, mthca1, ...
    std::string more_parameters = "";
    int trace = trace_error;
    bool has_ucm = true;
    bool has_key = true;         // the registry has the key in which the module finds its trace level
    size_t log_bytes = 64 << 20; // enough for the log of a long test
};

// A lookup of the address that belongs to a GID, and its answers. The lookup calls the function of ats that UCM calls.
struct reverse_lookup {
    struct answer {
        uint64_t tick;
        ibat_stat_t status;
        uint32_t ip; // network order; 0 without a record
        bool operator==(const answer&) const = default;
    };
    std::vector<answer> answers;
    int64_t order = 0; // position of its last answer among the answers to all lookups
    static inline int64_t answer_count = 0;

    // ats calls this function with the answer; `lookup` is a reverse_lookup.
    static void answered(ibat_stat_t status, ibat_arp_data_t* record, void* lookup);
};

// Prints tick, status and address, for example "7 0 10.0.0.2".
std::ostream& operator<<(std::ostream& stream, const reverse_lookup::answer& answer);

class ats_host
{
  public:
    ats_host(exec::simulation& sim, embedded::subnet& subnet, const host_setup& setup);

    kernel::machine& machine() { return host_.machine(); }
    kernel::fault_injector& faults() { return machine().faults; }
    recording_peers& peers() { return machine().get<recording_peers>(); }
    const std::string& name() const { return setup_.name; }

    ats::result<> try_load(const std::string& image = world::default_module_folder() + "/ats.so");
    ats_host& load();
    void unload();

    void link_up(int port, int hca = 0);
    void link_down(int port, int hca = 0);
    kq_gid_t gid(int port, int hca = 0) const;

    // Runs `body` in a task of the host. If the caller is not a task, this call then also runs everything that is due
    // now.
    void run(const std::function<void()>& body);

    // Looks up a GID through the function of ats that UCM calls. `lookup` receives the answer and must live until then.
    ibat_stat_t reverse(const kq_gid_t& gid, reverse_lookup& lookup);

    // Looks up an address through the function of ats that IBAT calls.
    ibat_stat_t resolve(const std::string& address);

    // Starts a task of the host. The scenario may send it a signal, and must finish() it.
    exec::task& start(const std::string& task_name, std::function<void()> body)
    {
        return machine().start(task_name, std::move(body));
    }
    void finish(exec::task& task) { machine().exec().join(task); }

    int control(const std::string& command); // one write to the control file; returns the result of the write
    std::string read(const std::string& proc_file);
    void trace(int level);

    // The log lines since the last call. A trace line is shortened to "LEVEL unit/operation: text". In all lines, PTR
    // replaces pointers.
    std::vector<std::string> log();

    // Lists the resources that the module has not given back. Returns "" if there are none.
    std::string leftovers();

    // A symbol that the module exports.
    template <class function_t>
    function_t symbol(const std::string& symbol_name)
    {
        return reinterpret_cast<function_t>(machine().modules.symbol("ats", symbol_name));
    }

  private:
    std::string hca_name(int hca) const { return "mthca" + std::to_string(hca); }

    host_setup setup_;
    exec::simulation& sim_;
    embedded::subnet& subnet_;
    world::host host_;
    uint64_t next_line_ = 0;
};

struct wire_request {
    uint64_t tick;
    uint16_t source_lid;
    fabric::address destination;
    fabric::mad_bytes mad;
};

class ats_world final : fabric::tap
{
  public:
    explicit ats_world(const exec::simulation_options& options = {}, embedded::subnet_options subnet_options = {});

    // Adds a host with replacements for IBAT and UCM. Does not load the module.
    ats_host& add(const host_setup& setup = {});

    // Adds a host, loads the module and raises the link of port 1. Then discards the requests of all hosts, the log
    // lines of this host, and the replies that its IBAT has received.
    ats_host& add_registered(const host_setup& setup = {});

    // Runs the world until this many ticks after its start.
    void at(uint64_t tick) { sim->run_until(begin_tick_ + tick); }

    // The requests of all hosts to the SA since the last call of one of these two functions. The ticks in the texts of
    // requests() count from the start of the world.
    std::vector<std::string> requests();
    std::vector<wire_request> raw_requests();

    // The records at the SA, for example "node1.1 10.0.0.1 node1".
    std::vector<std::string> records() const;

    // Sends a datagram to a port of a host, from a port that is not the SA's. If the subnet has no latency, the
    // datagram has arrived when the call returns.
    void inject(const ats_host& host, int port, const fabric::mad_bytes& mad);

    std::unique_ptr<exec::simulation> sim;
    embedded::subnet subnet;

  private:
    void crossed(uint64_t now, uint16_t source_lid, const fabric::address& destination,
                 const fabric::mad_bytes& mad) override;
    std::string port_name(uint16_t lid) const;
    std::string port_name(const std::string& gid) const;
    std::string describe(const wire_request& request) const;

    const uint64_t begin_tick_;
    std::vector<wire_request> requests_;
    fabric::hca* stranger_ = nullptr;
    std::vector<std::unique_ptr<ats_host>> hosts_; // destroyed first, because unloading still uses the other members
};

// An answer of the SA, by default to a lookup. The answer has a record with this GID and address.
fabric::mad_bytes sa_reply(const kq_gid_t& gid, const std::string& address, uint16_t status = 0,
                           uint8_t method = MAD_METHOD_GET, uint16_t attribute = SA_ATTR_SERVICE_RECORD);

uint32_t ip_of(const std::string& address); // network order
