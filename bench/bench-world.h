// A simulated fabric with hosts, for measurements.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "console/host-plans.h"
#include "host/world/host.h"
#include "host/world/module-folder.h"

// Hosts are called node1, node2, ... and have the addresses of address_of().
struct bench_world {
    explicit bench_world(int count)
    {
        for (int i = 1; i <= count; ++i) {
            const world::host_plan plan = console::usual_host("node" + std::to_string(i), address_of(i));
            hosts.push_back(std::make_unique<world::host>(*sim, world::add_hcas(subnet, plan).value(), plan,
                                                          world::default_module_folder(), static_cast<uint64_t>(i)));
        }
    }
    ~bench_world() { hosts.clear(); }

    static std::string address_of(int number)
    {
        return "10.0." + std::to_string(number / 256) + "." + std::to_string(number % 256);
    }

    // For each host, loads the modules and brings the link up. Then lets one tick pass: after it, all hosts have
    // registered. Stops at the first error.
    ats::result<> bring_up()
    {
        for (const auto& host : hosts)
            if (ats::result<> result = bring_up(*host); !result) return result;
        sim->run_for(1);
        return {};
    }

    // Loads the modules of one host and brings its link up. The host registers as soon as the simulation runs its
    // tasks.
    ats::result<> bring_up(world::host& host)
    {
        if (ats::result<> result = host.load(); !result) return result;
        return subnet.link_up(host.name(), host.plan().hcas[0].name, 1);
    }

    std::unique_ptr<exec::simulation> sim = exec::make_simulation();
    embedded::subnet subnet{*sim};
    std::vector<std::unique_ptr<world::host>> hosts;
};
