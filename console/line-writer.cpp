#include "console/line-writer.h"

#include <csignal>
#include <utility>

#include "host/exec/shortage.h"

namespace console
{

namespace
{

// Starts a thread that receives no signals, even if the service has not blocked them yet.
std::thread new_thread_without_signals(std::function<void()> body)
{
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    try {
        std::thread thread = exec::new_thread(std::move(body));
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        return thread;
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        throw;
    }
}

} // namespace

line_writer::line_writer(remark_t remark)
    : remark_(std::move(remark)), thread_(new_thread_without_signals([this] { work(); }))
{
}

line_writer::~line_writer()
{
    {
        const std::lock_guard lock(mutex_);
        is_stopping_ = true;
        changed_.notify_all();
    }
    thread_.join();
}

void line_writer::add(write_t write)
{
    const std::lock_guard lock(mutex_);
    if (waiting_.size() >= most_waiting_lines) {
        ++omitted_line_count_;
        return;
    }
    if (omitted_line_count_ > 0) {
        waiting_.emplace_back([this, lines = std::exchange(omitted_line_count_, 0)] { remark_(lines); });
        ++added_line_count_;
    }
    waiting_.push_back(std::move(write));
    ++added_line_count_;
    changed_.notify_all();
}

bool line_writer::wait_written(std::chrono::milliseconds limit)
{
    std::unique_lock lock(mutex_);
    const uint64_t last = added_line_count_;
    if (written_line_count_ < last && timeout_line_count_ == written_line_count_) return false;
    if (changed_.wait_for(lock, limit, [&] { return written_line_count_ >= last; })) return true;
    timeout_line_count_ = written_line_count_;
    return false;
}

void line_writer::work()
{
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [&] { return is_stopping_ || !waiting_.empty(); });
        if (waiting_.empty()) return;
        const write_t write = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        write();
        lock.lock();
        ++written_line_count_;
        // The reader is back, so report at once what was left out. The next line may come much later.
        if (const uint64_t lines = waiting_.empty() ? std::exchange(omitted_line_count_, 0) : 0) {
            waiting_.emplace_back([this, lines] { remark_(lines); });
            ++added_line_count_;
        }
        changed_.notify_all();
    }
}

} // namespace console
