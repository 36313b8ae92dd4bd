// Copies the lines of the hosts' kernel logs into systemd's journal. The printing tasks must not wait for the journal,
// so a thread sends the lines. The number of lines is limited, see console/line-limit.h. The logs themselves keep every
// line.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "console/journal.h"
#include "console/line-limit.h"
#include "host/kernel/log.h"

namespace cli
{

class log_copy
{
  public:
    using send_t = std::function<void(const console::notice&)>;

    // Starts a thread, which calls `send`. Throws a shortage if the thread cannot be created.
    explicit log_copy(send_t send);

    // Waits until every copied line has been sent. The logs are already destroyed.
    ~log_copy();
    log_copy(const log_copy&) = delete;
    log_copy& operator=(const log_copy&) = delete;

    // Copies the lines of this host's log from now on. All logs have the same clock. The log must be destroyed first.
    void follow(const std::string& host, kernel::log& log);

  private:
    void take(const std::string& host, const kernel::log_line& line);
    void work();

    const send_t send_;
    std::mutex mutex_; // guards the following members
    std::condition_variable changed_;
    console::line_limit limit_{": 'ats log' has them"};
    std::deque<console::notice> waiting_lines_;
    bool is_stopping_ = false;
    std::thread thread_;
};

} // namespace cli
