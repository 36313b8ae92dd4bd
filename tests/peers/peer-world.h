// One simulated host with a peer module loaded, reached the way other modules reach it: by published name.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "host/kernel/machine.h"
#include "host/peers/ibat-exports.h"
#include "host/world/module-folder.h"
#include "kernel/sync.h"
#include "kernel/time.h"

inline std::ostream& operator<<(std::ostream& out, const kq_gid_t& gid)
{
    return out << std::hex << gid.subnet << ":" << gid.eui64 << std::dec;
}

constexpr uint32_t ip_a = 0x0100000A, ip_b = 0x0200000A, ip_c = 0x0300000A, ip_d = 0x0400000A;

class peer_world
{
  public:
    explicit peer_world(std::string module, const std::string& parameters = "",
                        const exec::simulation_options& options = {})
        : sim(exec::make_simulation(options)), module_(std::move(module))
    {
        loaded = host.modules.insmod(world::default_module_folder() + "/" + module_ + ".so", parameters);
    }

    ~peer_world() { unload(); }

    ats::result<> unload()
    {
        if (!host.modules.is_loaded(module_)) return {};
        return host.modules.rmmod(module_);
    }

    // Functions stay callable while the module is loaded; no reference is kept.
    template <class function_t>
    function_t published(const char* name)
    {
        const void* function = host.inter_modules.get(name);
        if (!function) exec::panic("%s is not published", name);
        host.inter_modules.put(name);
        return reinterpret_cast<function_t>(const_cast<void*>(function));
    }

    // Runs `body` in a task of the host, then everything that it made ready.
    void run(const std::function<void()>& body)
    {
        host.enter("test", body);
        sim->settle();
    }

    void until(uint64_t tick) { sim->run_until(tick); }

    std::unique_ptr<exec::simulation> sim;
    kernel::machine host{*sim, "host"};
    ats::result<> loaded;

  private:
    std::string module_;
};

// Somebody who asks, and what he was told through callbacks. Outlives the world, whose end may still call him back.
struct asker {
    struct reply {
        uint64_t tick;
        ibat_stat_t status;
        ibat_arp_data_t record;
    };
    std::vector<reply> replies;
    std::function<void()> then; // what his callback does beyond writing down

    static void called_back(ibat_stat_t status, ibat_arp_data_t* record, void* self)
    {
        auto* him = static_cast<asker*>(self);
        him->replies.push_back({get_jiffies(), status, *record});
        if (him->then) him->then();
    }
};

inline constexpr kq_gid_t gid_of(uint64_t number)
{
    return {0xA0B0C0D000000000 + number, 0xFE80000000000000};
}
