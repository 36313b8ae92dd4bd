// Writes lines in its own thread, in order. The reader of the lines (systemd's journal, or a program behind a pipe) may
// stop reading. Then this thread waits for the reader, but add() does not wait. Up to most_waiting_lines lines wait in
// a queue. Further lines are counted and omitted.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace console
{

class line_writer
{
  public:
    using write_t = std::function<void()>;
    using remark_t = std::function<void(uint64_t line_count)>;

    static constexpr size_t most_waiting_lines = 1000;

    // The thread calls `remark` in place of omitted lines, with their number. `remark` writes a line about them. Throws
    // exec::shortage if the thread cannot be created.
    explicit line_writer(remark_t remark);

    // Waits until every line is written.
    ~line_writer();
    line_writer(const line_writer&) = delete;
    line_writer& operator=(const line_writer&) = delete;

    // Puts `write` into the queue, or counts it as omitted if the queue is full. Does not wait. The thread calls
    // `write` later; `write` may wait for the reader. Any thread.
    void add(write_t write);

    // Waits until all lines are written that were added before this call. Returns false if they are not written after
    // `limit`. Once a call has returned false, further calls return false at once until the next line is written. Any
    // thread.
    bool wait_written(std::chrono::milliseconds limit);

  private:
    void work();

    const remark_t remark_;
    std::mutex mutex_;               // guards the following members except thread_
    std::condition_variable change_; // signalled after a line is added or written, and when is_stopping_ is set
    std::deque<write_t> queue_;
    uint64_t added_line_count_ = 0;
    uint64_t written_line_count_ = 0;
    std::optional<uint64_t> timeout_line_count_; // written_line_count_ at the last timeout of wait_written()
    uint64_t omitted_line_count_ = 0;            // omitted lines that `remark_` has not reported yet
    bool is_stopping_ = false;
    std::thread thread_;
};

} // namespace console
