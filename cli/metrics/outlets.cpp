#include "cli/metrics/outlets.h"

#include <chrono>

#include "host/exec/shortage.h"

namespace metrics
{

namespace
{

constexpr std::chrono::seconds period(15); // docs/metrics.md and the lines of note() state this number

} // namespace

outlets::outlets(const cli::metrics_config& config, text_t text, print_t print)
    : config_(config), text_(std::move(text)), print_(std::move(print)), file_(config.textfile)
{
    if (config_.textfile.empty() && config_.listen.empty()) return;
    thread_ = exec::new_thread([this] { work(); });
}

outlets::~outlets()
{
    {
        const std::lock_guard lock(mutex_);
        is_stopping_ = true;
        change_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
}

void outlets::work()
{
    std::unique_lock lock(mutex_);
    while (!is_stopping_) {
        lock.unlock();
        if (!config_.textfile.empty()) note(file_outlet_, file_.write(text_()));
        if (!config_.listen.empty() && !http_.is_open()) note(http_outlet_, http_.open(config_.listen, text_));
        lock.lock();
        change_.wait_for(lock, period, [&] { return is_stopping_; });
    }
}

// Prints a line if the outlet fails with a new error, and if it works again after an error.
void outlets::note(outlet& outlet, const ats::result<>& result)
{
    const std::string error = result ? "" : result.error().text;
    if (error == outlet.error) return;
    if (!error.empty())
        print_(std::string(outlet.name) + ", it is tried again every 15 seconds: " + error);
    else
        print_(std::string(outlet.name) + ": this is over");
    outlet.error = error;
}

} // namespace metrics
