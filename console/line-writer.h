// Writes lines in a thread of its own, in order. The reader of a line (systemd's journal, or a pipe at stderr) may stop
// reading. Then only this thread waits for the reader. A limited number of lines wait in its queue. Further lines are
// counted and left out.
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

    // `remark` writes a line about the number of lines that were left out. The thread calls it at their place. Throws a
    // shortage if the thread cannot be created.
    explicit line_writer(remark_t remark);

    // Waits until every line is written.
    ~line_writer();
    line_writer(const line_writer&) = delete;
    line_writer& operator=(const line_writer&) = delete;

    // Lets the thread call `write`, which may wait for the reader. Does not wait. Any thread.
    void add(write_t write);

    // Waits until the lines that were added before are written. Returns false if they are not. Gives up after `limit`,
    // or at once if an earlier call gave up and no line was written since. Any thread.
    bool wait_written(std::chrono::milliseconds limit);

  private:
    void work();

    const remark_t remark_;
    std::mutex mutex_; // guards the following members
    std::condition_variable changed_;
    std::deque<write_t> waiting_;
    uint64_t added_line_count_ = 0;
    uint64_t written_line_count_ = 0;
    std::optional<uint64_t> timeout_line_count_; // the written lines when a wait_written() last gave up
    uint64_t omitted_line_count_ = 0;            // lines that were not reported yet
    bool is_stopping_ = false;
    std::thread thread_;
};

} // namespace console
