#include "cli/server/workers.h"

#include "host/exec/shortage.h"

namespace cli
{

workers::workers(size_t threads)
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
    changed_.notify_all();
    for (std::thread& thread : threads_)
        if (thread.joinable()) thread.join();
}

void workers::push(const queue_place& place, std::function<void()> job)
{
    {
        const std::lock_guard lock(mutex_);
        queue_.push(place, std::move(job));
    }
    changed_.notify_one();
}

void workers::remove(const queue_place& place)
{
    const std::lock_guard lock(mutex_);
    queue_.remove(place);
}

void workers::work()
{
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [&] { return is_stopping_ || !queue_.is_empty(); });
        if (is_stopping_) return;
        const std::function<void()> job = queue_.pop();
        lock.unlock();
        job();
        lock.lock();
    }
}

} // namespace cli
