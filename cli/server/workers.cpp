#include "cli/server/workers.h"

#include <algorithm>

#include "host/exec/shortage.h"

namespace cli
{

workers::workers(size_t threads) : user_limit_(std::max<size_t>(threads / 2, 1))
{
    try {
        for (size_t i = 0; i < threads; ++i) threads_.push_back(exec::new_thread([this] { work(); }));
    } catch (...) {
        stop();
        throw;
    }
}

void workers::stop()
{
    {
        const std::lock_guard lock(mutex_);
        is_stopping_ = true;
    }
    change_.notify_all();
    for (std::thread& thread : threads_)
        if (thread.joinable()) thread.join();
}

std::optional<std::chrono::steady_clock::time_point> workers::oldest_start()
{
    const std::lock_guard lock(mutex_);
    if (starts_.empty()) return std::nullopt;
    return *starts_.begin();
}

void workers::push(const queue_place& place, std::function<void()> job)
{
    {
        const std::lock_guard lock(mutex_);
        queue_.push(place, std::move(job));
    }
    change_.notify_one();
}

void workers::remove(const queue_place& place)
{
    const std::lock_guard lock(mutex_);
    queue_.remove(place);
}

std::optional<uid_t> workers::next_user() const
{
    return queue_.first([&](uid_t user) {
        const auto jobs = running_jobs_.find(user);
        return jobs == running_jobs_.end() || jobs->second < user_limit_;
    });
}

void workers::work()
{
    std::unique_lock lock(mutex_);
    while (true) {
        std::optional<uid_t> user;
        change_.wait(lock, [&] { return is_stopping_ || (user = next_user()); });
        if (is_stopping_) return;
        const std::function<void()> job = queue_.pop(*user);
        ++running_jobs_[*user];
        const auto start = starts_.insert(std::chrono::steady_clock::now());
        lock.unlock();
        job();
        lock.lock();
        starts_.erase(start);
        if (--running_jobs_[*user] == 0) running_jobs_.erase(*user);
    }
}

} // namespace cli
