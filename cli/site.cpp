#include "cli/site.h"

#include <algorithm>

#include "kernel/errno.h"

namespace cli
{

namespace
{

constexpr uint64_t system_randomness = 0;

// Why a host did not start, with the end of its log below.
failure did_not_start(world::host& host, const kernel::load_result& loaded)
{
    constexpr size_t lines_shown = 4;
    std::string why = host.name() + " does not start: " + loaded.why;
    const std::vector<kernel::log_line> lines = host.machine().log.lines();
    for (size_t i = lines.size() - std::min(lines.size(), lines_shown); i < lines.size(); ++i)
        why += "\n  " + kernel::format_line(lines[i]);
    return {loaded.error == -EK_INVAL ? exit_usage : exit_failed, why};
}

} // namespace

site::site(const world_config& config, const std::string& module_folder)
    : exec_(kernel::make_threaded_executor()), subnet_(std::make_unique<embedded::subnet>(*exec_))
{
    for (const world::host_plan& plan : config.hosts)
        hosts_.push_back(std::make_unique<world::host>(*exec_, *subnet_, plan, module_folder, system_randomness));
}

site::~site()
{
    stop();
    hosts_.clear(); // the machines let go of their HCAs before the subnet and the clock go
}

void site::start()
{
    for (const auto& host : hosts_) {
        const kernel::load_result loaded = host->load();
        if (!loaded) throw did_not_start(*host, loaded);
    }
    for (const auto& host : hosts_)
        for (const world::hca_plan& hca : host->plan().hcas)
            for (int port = 1; port <= hca.ports; ++port)
                if (const auto up = subnet_->link_up(host->name(), hca.name, port); !up)
                    throw failure(exit_failed, up.why);
}

std::vector<std::string> site::stop()
{
    std::vector<std::string> refusals;
    for (auto host = hosts_.rbegin(); host != hosts_.rend(); ++host) {
        const kernel::load_result unloaded = (*host)->unload();
        if (!unloaded) refusals.push_back((*host)->name() + ": " + unloaded.why);
    }
    return refusals;
}

world::host& site::host_named(const std::string& name)
{
    std::string names;
    for (const auto& host : hosts_) {
        if (name.empty() || host->name() == name) return *host;
        names += (names.empty() ? "" : ", ") + host->name();
    }
    throw failure(exit_usage, "no host " + quoted(name) + "; there are " + names);
}

} // namespace cli
