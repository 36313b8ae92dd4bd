// One simulated host with one of the modules IBAT and UCM. The tests call the functions that the module has published,
// like other modules do.
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

inline std::ostream& operator<<(std::ostream& stream, const kq_gid_t& gid)
{
    return stream << std::hex << gid.subnet << ":" << gid.eui64 << std::dec;
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

    // Returns a function that the module has published, or ends the process if there is none. The test may call the
    // function only while the module is loaded, because published() keeps no reference.
    template <class function_t>
    function_t published(const char* name)
    {
        const void* function = host.inter_modules.get(name);
        if (!function) exec::panic("%s is not published", name);
        host.inter_modules.put(name);
        return reinterpret_cast<function_t>(const_cast<void*>(function));
    }

    // Runs `body` in a task of the host. Then runs the other tasks until all of them wait.
    void run(const std::function<void()>& body)
    {
        host.enter("test", body);
        sim->settle();
    }

    void run_until(uint64_t tick) { sim->run_until(tick); }

    std::unique_ptr<exec::simulation> sim;
    kernel::machine host{*sim, "host"};
    ats::result<> loaded;

  private:
    std::string module_;
};

// A caller of the module, and the replies that its callbacks have got. A test declares the asker before the world,
// because the module may still call back when the world ends.
struct asker {
    struct reply {
        uint64_t tick;
        ibat_stat_t status;
        ibat_arp_data_t record;
    };
    std::vector<reply> replies;
    std::function<void()> action; // runs in every callback

    static void reply_callback(ibat_stat_t status, ibat_arp_data_t* record, void* self)
    {
        auto* caller = static_cast<asker*>(self);
        caller->replies.push_back({get_jiffies(), status, *record});
        if (caller->action) caller->action();
    }
};

inline constexpr kq_gid_t gid_of(uint64_t number)
{
    return {0xA0B0C0D000000000 + number, 0xFE80000000000000};
}
