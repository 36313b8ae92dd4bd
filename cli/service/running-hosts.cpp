#include "cli/service/running-hosts.h"

#include <algorithm>
#include <chrono>
#include <new>

#include "cli/service/registration.h"
#include "host/exec/shortage.h"

namespace cli
{

namespace
{

constexpr uint64_t system_randomness = 0;

// Why a host did not start, with the end of its log below; the log has nothing to add when memory ran out.
console::failure did_not_start(world::host& host, const ats::result<>& loaded)
{
    constexpr size_t lines_shown = 4;
    std::string why = host.name() + " does not start: " + loaded.error().text;
    if (loaded.error().kind == ats::error_kind::no_memory) return {console::exit_failed, why};
    const std::vector<kernel::log_line> lines = host.machine().log.lines();
    for (size_t i = lines.size() - std::min(lines.size(), lines_shown); i < lines.size(); ++i)
        why += "\n  " + kernel::format_line(lines[i]);
    return {loaded.error().kind == ats::error_kind::invalid ? console::exit_usage : console::exit_failed, why};
}

// Takes a step of a host's start. Throws a failure that names the host when it came to a limit of the process.
template <class step_t>
void or_not_started(const std::string& host, const step_t& step)
{
    const std::string title = host + " does not start: ";
    try {
        step();
        if (exec::reserve::is_used()) exec::throw_shortage("the memory is used up: run fewer hosts");
    } catch (const exec::shortage& shortage) {
        throw console::failure(console::exit_failed, title + shortage.what());
    } catch (const std::bad_alloc&) {
        throw console::failure(console::exit_failed, title + "the memory is used up: run fewer hosts");
    }
}

// The plan's HCAs on an embedded fabric. Throws a failure when it cannot take them.
std::vector<fabric::hca*> hcas_of_plan(embedded::subnet& subnet, const world::host_plan& plan)
{
    const auto hcas = world::add_hcas(subnet, plan);
    if (!hcas) throw console::failure(console::exit_failed, plan.name + " does not start: " + hcas.error().text);
    return *hcas;
}

} // namespace

running_hosts::running_hosts(const world_config& config, const std::string& module_folder)
    : exec_(exec::make_threaded_executor())
{
    if (config.fabric.is_real) {
        auto opened = umad::open(*exec_, config.fabric.ports);
        if (!opened) throw console::failure(console::exit_failed, opened.error().text);
        real_ = std::move(*opened);
    } else {
        subnet_ = std::make_unique<embedded::subnet>(*exec_);
    }
    if (!config.fabric.capture.empty()) start_capture(config.fabric.capture);
    for (const world::host_plan& plan : config.hosts)
        or_not_started(plan.name, [&] {
            const std::vector<fabric::hca*> hcas = real_ ? real_->hcas() : hcas_of_plan(*subnet_, plan);
            hosts_.push_back(std::make_unique<world::host>(*exec_, hcas, plan, module_folder, system_randomness));
        });
}

running_hosts::~running_hosts()
{
    stop();
    hosts_.clear(); // the machines let go of their HCAs before the fabric and the clock go
}

embedded::subnet& running_hosts::subnet()
{
    if (subnet_) return *subnet_;
    throw console::failure(console::exit_usage,
                           "the fabric is a real one: its links and its SA are not ats's to change");
}

void running_hosts::start_capture(const std::string& path)
{
    using namespace std::chrono;
    const auto now = duration_cast<milliseconds>(system_clock::now().time_since_epoch());
    capture_ = std::make_unique<fabric::capture>(path, static_cast<uint64_t>(now.count()) - exec_->now());
    if (const auto status = capture_->status(); !status)
        throw console::failure(console::exit_usage, status.error().text);
    if (real_)
        real_->set_tap(capture_.get());
    else
        subnet_->set_tap(capture_.get());
}

void running_hosts::stop_capture(std::vector<std::string>& complaints)
{
    if (!capture_) return;
    if (real_)
        real_->set_tap(nullptr);
    else
        subnet_->set_tap(nullptr);
    if (const auto closed = capture_->close(); !closed) complaints.push_back(closed.error().text);
    capture_.reset();
}

bool running_hosts::start(const std::function<bool(size_t)>& may_go_on)
{
    size_t started = 0;
    for (const auto& host : hosts_) {
        if (!may_go_on(started++)) return false;
        or_not_started(host->name(), [&] {
            const ats::result<> loaded = host->load();
            if (!loaded) throw did_not_start(*host, loaded);
        });
    }
    if (is_real()) return true;
    for (const auto& host : hosts_)
        for (const world::hca_plan& hca : host->plan().hcas)
            for (int port = 1; port <= hca.ports; ++port)
                if (const auto up = subnet_->link_up(host->name(), hca.name, port); !up)
                    throw console::failure(console::exit_failed, up.error().text);
    return true;
}

std::vector<std::string> running_hosts::stop()
{
    std::vector<std::string> refusals;
    for (auto host = hosts_.rbegin(); host != hosts_.rend(); ++host) {
        const ats::result<> unloaded = (*host)->unload();
        if (!unloaded) refusals.push_back((*host)->name() + ": " + unloaded.error().text);
    }
    stop_capture(refusals);
    return refusals;
}

std::chrono::seconds running_hosts::uptime() const
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - built_);
}

world::host& running_hosts::named(const std::string& name)
{
    std::string names;
    for (const auto& host : hosts_) {
        if (name.empty() || host->name() == name) return *host;
        names += (names.empty() ? "" : ", ") + host->name();
    }
    world::host* registered = nullptr;
    for (const auto& host : hosts_) {
        if (registered_name(*host) != name) continue;
        if (registered)
            throw console::failure(console::exit_usage,
                                   "several hosts are registered as " + console::quote(name) + "; there are " + names);
        registered = host.get();
    }
    if (registered) return *registered;
    throw console::failure(console::exit_usage, "no host " + console::quote(name) + "; there are " + names);
}

} // namespace cli
