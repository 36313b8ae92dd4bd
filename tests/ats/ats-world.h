// Hosts that run the real ats.so on one subnet in memory. A scenario says what happens and at which tick; the world
// writes down what each host asks of the SA and what it logs, in a form that reads like the story:
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

constexpr uint64_t host_random_seed = 7; // of every host

constexpr int trace_error = 1, trace_debug = 4, trace_func = 5;

struct host_setup {
    std::string name = "node1";
    std::string address = "10.0.0.1";
    std::vector<int> ports = {1}; // of the HCAs mthca0, mthca1, ...
    std::string more_parameters = "";
    int trace = trace_error;
    bool has_ucm = true;
    bool has_key = true; // its trace level in the registry
};

// Somebody who asked for the address of a GID, and what he was told.
struct asker {
    struct answer {
        uint64_t tick;
        ibat_stat_t status;
        uint32_t ip; // of no record: 0
        bool operator==(const answer&) const = default;
    };
    std::vector<answer> answers;
    int64_t order = 0; // among all who were told
    static inline int64_t told = 0;

    static void called_back(ibat_stat_t status, ibat_arp_data_t* record, void* self);
};

std::ostream& operator<<(std::ostream& out, const asker::answer& answer); // "7 ibat_stat_ok 10.0.0.2"

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

    // Runs `body` in a task of the host, then, called from outside of any task, everything that it made ready.
    void run(const std::function<void()>& body);

    // Asks as UCM would. `who` gets the answer.
    ibat_stat_t reverse(const kq_gid_t& gid, asker& who);

    // Asks as IBAT would.
    ibat_stat_t resolve(const std::string& address);

    // A task of the host's own that a story may signal or wait for.
    exec::task& start(const std::string& task_name, std::function<void()> body)
    {
        return machine().start(task_name, std::move(body));
    }
    void finish(exec::task& started) { machine().exec().join(started); }

    int control(const std::string& written); // one write to the control file
    std::string read(const std::string& proc_file);
    void trace(int level);

    // The lines since the last call. A trace line reads "LEVEL unit/operation: text", a plain one "text"; pointers read
    // PTR. One that does not have the form of a trace line stays as it is.
    std::vector<std::string> log();

    // What the module has not given back; "" when that is nothing.
    std::string held();

    template <class function_t>
    function_t symbol(const std::string& exported)
    {
        return reinterpret_cast<function_t>(machine().modules.symbol("ats", exported));
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

    // A host with its peers, not loaded.
    ats_host& add(const host_setup& setup = {});

    // The same, loaded, with the link of port 1 up, and what that caused forgotten.
    ats_host& add_registered(const host_setup& setup = {});

    // Lets the world run until this many ticks after it began.
    void at(uint64_t tick) { sim->run_until(begin_tick_ + tick); }

    // What hosts asked the SA since the last call; ticks count from the world's beginning.
    std::vector<std::string> requests();
    std::vector<wire_request> raw_requests();

    // The records at the SA: "node1.1 10.0.0.1 node1".
    std::vector<std::string> records() const;

    // A datagram from a port that is not the SA's, to a port of a host; delivered before the call returns.
    void inject(const ats_host& to, int port, const fabric::mad_bytes& mad);

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
    std::vector<std::unique_ptr<ats_host>> hosts_; // the first to go, for they say farewell
};

// An answer to a lookup, as the SA of another fabric might give it.
fabric::mad_bytes sa_reply(const kq_gid_t& gid, const std::string& address, uint16_t status = 0,
                           uint8_t method = MAD_METHOD_GET, uint16_t attribute = SA_ATTR_SERVICE_RECORD);

uint32_t ip_of(const std::string& address); // network order
