// What happens in a campaign: a fabric, and acts that each begin and end at a tick. All of it is drawn from a seed
// before anything runs, so that a list of acts can be replayed, and shortened until only what matters is left.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "host/fabric/embedded/faults.h"

namespace campaign
{

constexpr uint64_t second = 1000; // in ticks

struct arena;

constexpr uint64_t minute = 60'000; // ticks

// How far the truth may suffer from an act while it lasts.
enum class harm {
    none,
    host,    // one host's registration may fail
    network, // anybody's may
};

struct act {
    uint64_t begin_tick = 0;
    uint64_t end_tick = 0;
    uint32_t kind = 0; // index into act_kinds
    uint32_t host = 0; // each kind makes of these what it needs
    uint32_t a = 0;
    uint32_t b = 0;
};

struct act_kind {
    const char* name;
    int weight; // how often it is drawn
    harm does;
    uint64_t longest_ticks; // 0: it has no length
    void (*begin)(arena&, const act&);
    void (*end)(arena&, const act&); // null: nothing to undo

    // The name of the effect that is counted for this kind, and the fabric's counter of it. Null: the act itself calls
    // arena::mark.
    const char* mark;
    uint64_t embedded::fault_effects::*effect = nullptr;
};
constexpr size_t act_kind_count = 36;
extern const std::array<act_kind, act_kind_count> act_kinds;

struct host_shape {
    int hcas;
    int ports;
    bool has_watching_ucm; // see watching-ucm.h
    int trace_level;       // from 4, debug, on it is compared with the model
};

struct plan {
    uint64_t seed;
    std::vector<host_shape> hosts;
    std::vector<act> acts; // by begin_tick
    uint64_t faults_end_tick;
};

plan draw_plan(uint64_t seed);

// "17 at 1234 for 500: loss host=3 a=17 b=4"
std::string describe(const plan& of, size_t act_number);

} // namespace campaign
