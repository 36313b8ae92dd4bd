// Where a campaign happens: an embedded fabric in simulated time, hosts on it, and everything that watches them. What
// must not be is a violation: it ends the process with one line.
#pragma once

#include <cstdio>
#include <deque>
#include <memory>

#include "campaign/node.h"
#include "campaign/plan.h"
#include "campaign/wire-watch.h"

namespace campaign
{

struct options {
    std::string module_folder;
    std::string log_path;     // empty: no log
    std::string capture_path; // empty: no capture
};

// The figures of one campaign. Several campaigns are added field by field, except the digest.
struct figures {
    uint64_t seeds = 0;
    uint64_t simulated_ticks = 0;
    uint64_t acts = 0;
    uint64_t faults = 0; // acts that do harm, link changes, failed calls, datagrams lost or changed on the way
    uint64_t questions = 0;
    uint64_t answers = 0; // of questions that were called back
    uint64_t truths = 0;  // registrations and lookups compared with what must be
    uint64_t datagrams = 0;
    std::array<uint64_t, act_kind_count> marks{}; // how often each kind of act took effect
    uint64_t digest = 0;                          // of everything that happened; of several seeds, the xor
};

// For so long after its end, harm may show.
constexpr uint64_t harm_lasts_ticks = 500;

// Since when nothing does harm.
struct harm_watch {
    int at_work = 0;
    uint64_t last_tick = 0;
    bool ever = false;

    void begin() { ++at_work, ever = true; }
    void end(uint64_t now_ticks) { --at_work, last_tick = now_ticks; }
    bool quiet_since(uint64_t tick) const { return at_work == 0 && (!ever || last_tick < tick); }
};

struct arena {
    arena(const plan& of, const options& chosen);
    ~arena();

    // Runs the acts whose numbers are given, and then sees that everything comes right again.
    void run(const std::vector<size_t>& act_numbers);

    [[noreturn]] void violate(const std::string& what);
    void note(const std::string& who, const std::string& what); // for the log and the digest
    uint64_t now() const { return sim->now(); }

    // Counts that the act took effect, if it did; returns whether it did.
    bool mark(const act& it, bool took_effect = true)
    {
        done.marks[it.kind] += took_effect;
        return took_effect;
    }

    node& host(const act& of) { return hosts[of.host % hosts.size()]; }

    const std::string module_folder;
    const plan what;
    figures done;
    std::unique_ptr<exec::simulation> sim;
    embedded::subnet net;
    wire_watch wire;
    std::deque<node> hosts;

    harm_watch network;
    std::deque<std::vector<ib_service_record_v2_t>> kept_records; // of the SA, a minute apart

  private:
    void perform(const act& it, size_t number, bool begins);
    void keep_records();

    std::FILE* log_ = nullptr;
    uint64_t kept_until_tick_ = 0;
};

// In truth.cpp. The first is called by a task of the host right after something has changed: unless anything else
// happens, the host's records are true soon. The second ends every fault and compares everything with the truth.
void check_promptly(node& at, uint64_t acted_tick);
void check_in_the_end(arena& in);

} // namespace campaign
