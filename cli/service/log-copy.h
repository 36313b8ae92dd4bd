// Copies the lines of the hosts' kernel logs into systemd's journal. The tasks that print the lines must not wait for
// the journal, so a thread sends the lines. The number of copied lines is limited, see console/line-limit.h. The kernel
// logs also keep the lines that are not copied.
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

    // Starts a thread, which calls `send` for each line. Throws exec::shortage if the thread cannot be created.
    explicit log_copy(send_t send);

    // Waits until every waiting line has been sent.
    ~log_copy();
    log_copy(const log_copy&) = delete;
    log_copy& operator=(const log_copy&) = delete;

    // Copies the later lines of `log`, which is the log of `host`. `log` must be destroyed before this object. All logs
    // must use the same clock, because the limit compares the times of lines.
    void follow(const std::string& host, kernel::log& log);

  private:
    void add(const std::string& host, const kernel::log_line& line);
    void work();

    const send_t send_;
    std::mutex mutex_;               // guards the following members, except thread_
    std::condition_variable change_; // notified when waiting_lines_ gets a line, or when is_stopping_ is set
    console::line_limit limit_{": 'ats log' has them"};
    std::deque<console::notice> waiting_lines_;
    bool is_stopping_ = false;
    std::thread thread_;
};

} // namespace cli
