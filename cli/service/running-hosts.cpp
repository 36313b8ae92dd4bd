#include "cli/service/running-hosts.h"

#include <algorithm>
#include <cassert>
#include <new>

#include "cli/service/host-orders.h"
#include "cli/service/host-records.h"
#include "cli/service/registration.h"
#include "console/errors.h"
#include "console/journal.h"
#include "host/exec/shortage.h"
#include "host/fabric/output-file.h"

namespace cli
{

namespace
{

using ats::error_kind;

constexpr uint64_t system_randomness = 0;
constexpr size_t record_buffer_bytes = 65536; // most lines of a recording fit into it
constexpr const char* memory_is_used_up = "the memory is used up: run fewer hosts";

// Returns the last lines of the host's log, indented.
std::string end_of_log(world::host& host)
{
    constexpr size_t line_count = 4;
    std::string text;
    const std::vector<kernel::log_line> lines = host.machine().log.lines();
    for (size_t i = lines.size() - std::min(lines.size(), line_count); i < lines.size(); ++i)
        text += "\n  " + kernel::format_line(lines[i]);
    return text;
}

// Loads the host's modules and applies its settings. An error ends with the last lines of the host's log, except an
// error of the kind no_memory: the log does not mention a lack of memory.
ats::result<> load(world::host& host, const host_settings& settings)
{
    set_spread(host, settings.spread_seconds);
    ats::result<> result = host.load();
    if (result && settings.verification != verification()) result = set_verification(host, settings.verification);
    if (result || result.error().kind == error_kind::no_memory) return result;
    return ats::fail(result.error().kind, result.error().text + end_of_log(host));
}

// Prints a warning that the recording or the capture has ended before the service, because a write has failed.
void warn_of_torn_file(const std::string& reason)
{
    constexpr const char* consequence =
        ". The file ends here, and the service continues. A restart of the service begins "
        "the file again, so copy it first.";
    console::print_limited({.priority = console::priority::warning, .text = "warning: " + reason + consequence});
}

// Executes one step of a host's start. `step` returns an ats::result<>; it may throw exec::shortage or std::bad_alloc.
// All these errors are returned, with the name of the host. Also fails if the step has used the memory that the program
// keeps in reserve (exec::reserve). After an error, the program stops; its hosts may use the reserve for that.
template <class step_t>
ats::result<> take_step(const std::string& host, const step_t& step)
{
    const auto failure = [&](error_kind kind, const std::string& text) {
        exec::reserve::release();
        return ats::fail(kind, host + " does not start: " + text);
    };
    try {
        if (const ats::result<> result = step(); !result) return failure(result.error().kind, result.error().text);
        if (exec::reserve::is_used()) exec::throw_shortage(memory_is_used_up);
        return {};
    } catch (const exec::shortage& shortage) {
        return failure(error_kind::no_memory, shortage.what());
    } catch (const std::bad_alloc&) {
        return failure(error_kind::no_memory, memory_is_used_up);
    }
}

} // namespace

running_hosts::running_hosts(report_t report) : exec_(exec::make_threaded_executor()), report_(std::move(report)) {}

ats::result<std::unique_ptr<running_hosts>> running_hosts::build(const world_config& config,
                                                                 const std::string& module_folder, report_t report)
{
    std::unique_ptr<running_hosts> hosts(new running_hosts(std::move(report)));
    if (const ats::result<> result = hosts->open_fabric(config.fabric); !result) return ats::pass_on(result);
    if (console::has_journal_fields()) hosts->journal_copy_.emplace(console::print);
    for (const host_config& host : config.hosts)
        if (const ats::result<> result = hosts->add_host(host, module_folder); !result) return ats::pass_on(result);
    return hosts;
}

running_hosts::~running_hosts()
{
    stop();
    name_questions_.close();
    hosts_.clear(); // before the fabric and the executor, which the machines use
}

ats::result<> running_hosts::open_fabric(const fabric_config& config)
{
    if (config.is_real) {
        auto result = umad::open(*exec_, config.ports);
        if (!result) return ats::fail(result.error().text);
        real_fabric_ = std::move(*result);
    } else {
        subnet_ = std::make_unique<embedded::subnet>(*exec_);
    }
    if (!config.record.empty())
        if (const ats::result<> result = start_recording(config.record); !result) return result;
    return config.capture.empty() ? ats::result<>() : start_capture(config.capture);
}

ats::result<> running_hosts::add_host(const host_config& plan, const std::string& module_folder)
{
    return take_step(plan.name, [&]() -> ats::result<> {
        const ats::result<std::vector<fabric::hca*>> hcas =
            is_real() ? watched(plan.name, real_fabric_->hcas()) : world::add_hcas(*subnet_, plan);
        if (!hcas) return ats::pass_on(hcas);
        hosts_.push_back(std::make_unique<world::host>(*exec_, *hcas, plan, module_folder, system_randomness));
        settings_.push_back(plan.settings);
        kernel::machine& machine = hosts_.back()->machine();
        host_statistics_[&machine].follow(machine.log);
        if (journal_copy_) journal_copy_->follow(plan.name, machine.log);
        if (recorder_) recorder_->follow(plan.name, machine);
        return {};
    });
}

ats::result<embedded::subnet*> running_hosts::subnet()
{
    if (subnet_) return subnet_.get();
    return ats::fail(error_kind::invalid, "this is a real fabric: ats cannot change its links or its SA");
}

std::vector<fabric::fabric_task> running_hosts::fabric_tasks() const
{
    return is_real() ? real_fabric_->tasks() : std::vector{subnet_->task()};
}

void running_hosts::set_tap(fabric::tap* tap)
{
    if (is_real())
        real_fabric_->set_tap(tap);
    else
        subnet_->set_tap(tap);
}

ats::result<> running_hosts::start_recording(const std::string& path)
{
    const ats::result<std::FILE*> file = fabric::open_output_file(path);
    if (!file) return ats::fail(error_kind::invalid, "cannot write the recording " + path + ": " + file.error().text);
    record_file_.reset(*file);
    // With _IOLBF, each event is written at once, so the recording of a killed service also shows its last moments.
    std::setvbuf(record_file_.get(), nullptr, _IOLBF, record_buffer_bytes);
    recorder_ = std::make_unique<recording::recorder>(record_file_.get(), "ats run", warn_of_torn_file);
    if (subnet_) recorder_->follow(*subnet_);
    return {};
}

ats::result<> running_hosts::stop_recording()
{
    if (!recorder_) return {};
    const ats::result<> result = recorder_->finish(exec_->now());
    recorder_->stop();
    return result;
}

// Returns the HCAs for a host on a real fabric. During a recording, each HCA is wrapped in a watched_hca, because a
// real fabric has no embedded::observer.
std::vector<fabric::hca*> running_hosts::watched(const std::string& host, const std::vector<fabric::hca*>& hcas)
{
    if (!recorder_) return hcas;
    std::vector<fabric::hca*> result;
    for (fabric::hca* const hca : hcas) {
        watched_hcas_.push_back(std::make_unique<recording::watched_hca>(host, *hca, *recorder_, *exec_));
        result.push_back(watched_hcas_.back().get());
    }
    return result;
}

ats::result<> running_hosts::start_capture(const std::string& path)
{
    using namespace std::chrono;
    const auto now = duration_cast<milliseconds>(system_clock::now().time_since_epoch());
    capture_ =
        std::make_unique<fabric::capture>(path, static_cast<uint64_t>(now.count()) - exec_->now(), warn_of_torn_file);
    if (const ats::result<> status = capture_->status(); !status)
        return ats::fail(error_kind::invalid, status.error().text);
    set_tap(capture_.get());
    return {};
}

ats::result<> running_hosts::stop_capture()
{
    if (!capture_) return {};
    set_tap(nullptr);
    const ats::result<> result = capture_->close();
    capture_.reset();
    return result;
}

ats::result<bool> running_hosts::start(const std::function<bool(size_t)>& may_go_on)
{
    size_t host_count = 0;
    for (const auto& host : hosts_) {
        if (!may_go_on(host_count)) return false;
        if (is_real()) report_other_holder(*host, settings_[host_count].address);
        const ats::result<> result = take_step(host->name(), [&] { return load(*host, settings_[host_count]); });
        if (!result) return ats::pass_on(result);
        ++host_count;
    }
    if (is_real()) return true;
    for (const auto& host : hosts_)
        for (const world::hca_plan& hca : host->plan().hcas)
            for (int port = 1; port <= hca.ports; ++port)
                if (const auto link = subnet_->link_up(host->name(), hca.name, port); !link) return ats::pass_on(link);
    return true;
}

// Before `host` registers, reports if the SA has a record of `address` for another host. Only for a real fabric, whose
// ports may already be active. On an embedded fabric, the SA is new and all links are still down.
void running_hosts::report_other_holder(world::host& host, const std::string& address) const
{
    const ats::result<std::string> line = other_holder(host, address);
    if (line && !line->empty()) report_(host.name(), *line);
}

void running_hosts::delete_records(world::host& host)
{
    const ats::result<std::vector<std::string>> lines = delete_leftovers(host);
    if (!lines) {
        is_sa_silent_ = true;
        return report_(host.name(), "its record may still be at the SA: " + lines.error().text);
    }
    for (const std::string& line : *lines) report_(host.name(), line);
}

std::vector<std::string> running_hosts::stop()
{
    std::vector<std::string> refusals;
    for (auto host = hosts_.rbegin(); host != hosts_.rend(); ++host) {
        const ats::result<> result = (*host)->unload();
        if (!result)
            refusals.push_back((*host)->name() + ": " + result.error().text);
        else if (!is_sa_silent_)
            delete_records(**host);
    }
    for (const ats::result<>& result : {stop_capture(), stop_recording()})
        if (!result) refusals.push_back(result.error().text);
    return refusals;
}

std::chrono::seconds running_hosts::uptime() const
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - build_time_);
}

ats::result<world::host*> running_hosts::find(const std::string& name)
{
    assert(!hosts_.empty());
    std::string names;
    for (const auto& host : hosts_) {
        if (name.empty() || host->name() == name) return host.get();
        names += (names.empty() ? "" : ", ") + host->name();
    }
    std::vector<world::host*> registered_hosts;
    for (const auto& host : hosts_)
        if (registered_name(*host) == name) registered_hosts.push_back(host.get());
    if (registered_hosts.size() == 1) return registered_hosts.front();
    if (registered_hosts.empty())
        return ats::fail(error_kind::invalid, "no host " + console::quote(name) + "; there are " + names);
    return ats::fail(error_kind::invalid,
                     "several hosts are registered as " + console::quote(name) + "; there are " + names);
}

} // namespace cli
