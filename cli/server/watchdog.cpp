#include "cli/server/watchdog.h"

#include <cstdlib>
#include <unistd.h>

#include "cli/service/service-notice.h"
#include "host/exec/shortage.h"

namespace cli
{

namespace
{

std::string list_of(const std::vector<std::string>& names)
{
    constexpr size_t most_named = 5;
    std::string text;
    for (size_t i = 0; i < std::min(names.size(), most_named); ++i) text += (i == 0 ? "" : ", ") + names[i];
    if (names.size() > most_named) text += " and " + std::to_string(names.size() - most_named) + " more";
    return text;
}

} // namespace

life_signs::life_signs(event_loop& loop, workers& workers, host_lookups& lookups, const running_hosts& hosts)
    : loop_(loop), workers_(workers), lookups_(lookups), hosts_(hosts), fabric_tasks_(hosts.fabric_tasks())
{
    for (const auto& host : hosts.all()) liveness_.emplace_back(host->machine());
}

void life_signs::ask()
{
    has_loop_answered_ = std::make_shared<std::atomic<bool>>(false);
    loop_.post([has_answered = has_loop_answered_] { *has_answered = true; });
    fabric_rounds_.clear();
    for (const fabric::fabric_task& task : fabric_tasks_) {
        fabric_rounds_.push_back(task.rounds());
        task.wake();
    }
    for (stack::liveness& liveness : liveness_) liveness.ask();
}

std::vector<std::string> life_signs::missing(std::chrono::steady_clock::time_point now) const
{
    std::vector<std::string> parts;
    if (!*has_loop_answered_) parts.emplace_back("the event loop");
    const auto oldest_start = workers_.oldest_start();
    if (oldest_start && now - *oldest_start > longest_request) parts.emplace_back("a worker");
    for (const std::string& host : lookups_.stuck_since(now - longest_request)) parts.push_back("lookups of " + host);
    for (size_t i = 0; i < fabric_tasks_.size(); ++i)
        if (fabric_tasks_[i].rounds() == fabric_rounds_[i]) parts.push_back(fabric_tasks_[i].name);
    for (size_t i = 0; i < liveness_.size(); ++i)
        for (const std::string& task : liveness_[i].silent()) parts.push_back(task + " of " + hosts_.all()[i]->name());
    return parts;
}

std::optional<std::chrono::microseconds> watchdog_period()
{
    const char* process = std::getenv("WATCHDOG_PID"); // the process that must send the notices; may be unset
    if (process && std::strtoll(process, nullptr, 10) != getpid()) return std::nullopt;
    const char* period = std::getenv("WATCHDOG_USEC");
    const long long us = period ? std::strtoll(period, nullptr, 10) : 0;
    return us > 0 ? std::optional(std::chrono::microseconds(us)) : std::nullopt;
}

watchdog::watchdog(event_loop& loop, workers& workers, host_lookups& lookups, const running_hosts& hosts,
                   std::function<void(const std::string&)> report)
    : signs_(loop, workers, lookups, hosts), report_(std::move(report))
{
    if (const auto period = watchdog_period()) thread_ = exec::new_thread([this, period] { run(*period); });
}

watchdog::~watchdog()
{
    {
        const std::lock_guard lock(mutex_);
        is_stopping_ = true;
    }
    stop_.notify_all();
    if (thread_.joinable()) thread_.join();
}

// Checks four times in each period. If a part shows its sign of life within three quarters of a period after ask(), the
// next notice still comes in time.
void watchdog::run(std::chrono::microseconds period)
{
    std::unique_lock lock(mutex_);
    signs_.ask();
    while (!stop_.wait_for(lock, period / 4, [&] { return is_stopping_; })) check();
}

// If all parts have shown a sign of life, sends a notice and asks again. Otherwise sends no notice; the first such
// check reports the parts that have shown none.
void watchdog::check()
{
    const std::vector<std::string> missing = signs_.missing();
    if (missing.empty()) {
        notify_service_manager("WATCHDOG=1");
        if (is_sign_missing_) report_("every part of the service works again");
        signs_.ask();
    } else if (!is_sign_missing_) {
        report_("no sign of life from " + list_of(missing) + ": the service manager restarts a service that hangs");
    }
    is_sign_missing_ = !missing.empty();
}

} // namespace cli
