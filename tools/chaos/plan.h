// The plan of a chaos run: rounds of acts on real programs. The plan is drawn from a seed before anything runs. An act
// is a fault or an action of an administrator. Pauses, lost packets, unplugged links and full disks end at the end of
// the round; then everything must be right again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace chaos
{

enum class act_kind {
    kill_host,   // SIGKILL; the host leaves its record at the SA
    stop_host,   // SIGTERM; the host deletes its record, if it can reach the SA
    pause_host,  // SIGSTOP until the round ends
    unplug,      // the host's link is down until the round ends
    lose,        // `number` percent of the packets to the host are lost until the round ends
    set_address, // to 10.0.HOST.(`number` + 1)
    set_name,    // to nodeHOST-`number`
    reload,      // a new name and address in the host's configuration, and SIGHUP
    fill_disk,   // no space on the disk with the host's capture, metrics and lock files until the round ends
    kill_sm,     // SIGKILL of the master; if no SM is left, a new one starts at the end of the round
    restart_sm,  // SIGTERM of all SMs; a new one starts at the end of the round
    pause_sm,    // SIGSTOP until the round ends; only if there is one SM
    start_sm,    // only if there is one SM: the second one becomes the master if `number` is 1, else a standby
};

struct act {
    act_kind kind = act_kind::kill_host;
    int host = 0;    // numbered from 1; 0 for acts on an SM
    int number = 0;  // its meaning depends on the kind, see act_kind
    int lookups = 0; // how often a host looks up all others after the act; each time another host, if several run
};

struct round {
    std::vector<act> acts;
    std::vector<int> returning_hosts; // stopped or killed hosts that start again after the faults have ended
};

struct plan {
    uint64_t seed = 0;
    int hosts = 0;
    std::vector<round> rounds;
};

// Draws the plan of a seed. The same arguments give the same plan on every machine.
plan draw_plan(uint64_t seed, int most_hosts, int rounds);

// Returns the name of a kind of act for people, for example "kill a host".
const char* name_of(act_kind kind);

// These functions return an act or a round as text, for example "kill node3".
std::string describe(const act& act);
std::string describe(const round& round);

} // namespace chaos
