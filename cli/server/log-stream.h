// The answer of a "log" request: a host's lines, as fast as the client reads them.
#pragma once

#include <functional>
#include <optional>

#include <nlohmann/json.hpp>

#include "host/kernel/log.h"

namespace cli
{

class log_stream
{
  public:
    // Sends lines of a level up to `level`. Ends after the last line, unless there is an `on_new_line`: then it goes
    // on. `on_new_line` is called for each new line, in any thread and also in contexts that may not sleep.
    log_stream(kernel::log& log, int level, std::function<void()> on_new_line);
    ~log_stream();
    log_stream(const log_stream&) = delete;
    log_stream& operator=(const log_stream&) = delete;

    // Calls `send` with the lines that there are, while `may_send` says so. False: the answer is complete.
    bool pump(const std::function<bool()>& may_send, const std::function<void(const nlohmann::json&)>& send);

  private:
    kernel::log& log_;
    const int level_;
    uint64_t next_ = 0;
    std::optional<int> follower_;
};

} // namespace cli
