#include "console/line-writer.h"

#include <csignal>
#include <utility>

#include "host/exec/shortage.h"

namespace console
{

namespace
{

// Starts a thread in which all signals are blocked. A thread inherits the signal mask of its creator, so the caller's
// mask changes for a moment.
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
        change_.notify_all();
    }
    thread_.join();
}

void line_writer::add(write_t write)
{
    const std::lock_guard lock(mutex_);
    if (queue_.size() >= most_waiting_lines) {
        ++omitted_line_count_;
        return;
    }
    if (omitted_line_count_ > 0) {
        queue_.emplace_back([this, lines = std::exchange(omitted_line_count_, 0)] { remark_(lines); });
        ++added_line_count_;
    }
    queue_.push_back(std::move(write));
    ++added_line_count_;
    change_.notify_all();
}

bool line_writer::wait_written(std::chrono::milliseconds limit)
{
    std::unique_lock lock(mutex_);
    const uint64_t last = added_line_count_;
    if (written_line_count_ < last && timeout_line_count_ == written_line_count_) return false;
    if (change_.wait_for(lock, limit, [&] { return written_line_count_ >= last; })) return true;
    timeout_line_count_ = written_line_count_;
    return false;
}

void line_writer::work()
{
    std::unique_lock lock(mutex_);
    while (true) {
        change_.wait(lock, [&] { return is_stopping_ || !queue_.empty(); });
        if (queue_.empty()) return;
        const write_t write = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        write();
        lock.lock();
        ++written_line_count_;
        // An empty queue means that the reader reads again. Then report omitted lines now, because the next add() may
        // come much later.
        if (const uint64_t lines = queue_.empty() ? std::exchange(omitted_line_count_, 0) : 0) {
            queue_.emplace_back([this, lines] { remark_(lines); });
            ++added_line_count_;
        }
        change_.notify_all();
    }
}

} // namespace console
