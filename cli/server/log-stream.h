// The answer of a "log" request: sends a host's lines at the speed of the client.
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
    // Sends the lines up to this level. Without `on_new_line`, the answer ends after the last line of the log. With it,
    // the answer continues with new lines. `on_new_line` is called for each new line, in any thread and also in
    // contexts that may not sleep.
    log_stream(kernel::log& log, int level, std::function<void()> on_new_line);
    ~log_stream();
    log_stream(const log_stream&) = delete;
    log_stream& operator=(const log_stream&) = delete;

    // Calls `send` with the available lines while `may_send` returns true. Returns false when the answer is complete.
    bool pump(const std::function<bool()>& may_send, const std::function<void(const nlohmann::json&)>& send);

  private:
    kernel::log& log_;
    const int level_;
    uint64_t next_ = 0;
    std::optional<int> follower_;
};

} // namespace cli
