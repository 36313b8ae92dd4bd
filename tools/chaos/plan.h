// The plan of a chaos run: rounds of acts on real programs. It is drawn from a seed before anything runs. An act is a
// fault or an action of an administrator. The faults of a round end together; then everything must be right again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace chaos
{

enum class act_kind {
    kill_host,   // SIGKILL; it leaves its record at the SA
    stop_host,   // SIGTERM; it deletes its record
    pause_host,  // SIGSTOP until the round ends
    unplug,      // its link is down until the round ends
    lose,        // `number` percent of the packets to it are lost until the round ends
    set_address, // to 10.0.HOST.`number`
    set_name,    // to nodeHOST-`number`
    reload,      // a new name and address in its configuration, and SIGHUP
    fill_disk,   // no space for its capture, metrics and lock until the round ends
    kill_sm,     // SIGKILL of the master; without a standby, the end of the round starts one on node `number` of 2
    restart_sm,  // SIGTERM of all SMs; the end of the round starts one on node `number` of 2
    pause_sm,    // SIGSTOP until the round ends; only drawn if there is one SM
    start_sm,    // a second SM; with the higher priority it becomes the master if `number` is 1, else a standby
};

struct act {
    act_kind kind = act_kind::kill_host;
    int host = 0;   // from 1; 0 for acts on an SM
    int number = 0; // its meaning depends on the kind
    int looks = 0;  // hosts ask so many times before the next act begins
};

struct round {
    std::vector<act> acts;
    std::vector<int> returning_hosts; // those that start when the faults end
};

struct plan {
    uint64_t seed = 0;
    int hosts = 0;
    std::vector<round> rounds;
};

// Draws the plan of the seed. The same seed, and the same limits, give the same plan on every machine.
plan draw_plan(uint64_t seed, int most_hosts, int rounds);

// A kind of acts for people, for example "kill a host".
const char* name_of(act_kind kind);

// An act or a round as text, for example "kill node3".
std::string describe(const act& act);
std::string describe(const round& round);

} // namespace chaos
