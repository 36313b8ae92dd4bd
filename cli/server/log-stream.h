// The answer to a "log" request. Reads the lines of a host's log only as fast as the client can receive them. The log
// keeps a limited number of lines. If the log drops lines before they are read, the answer says how many.
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
    // pump() sends the lines up to the trace level `level`. If `on_new_line` is empty, the answer ends after the last
    // line of the log. Otherwise the answer continues with new lines. The log then calls `on_new_line` for each new
    // line, in the thread that adds the line; the call must not sleep, print or use the log.
    log_stream(kernel::log& log, int level, std::function<void()> on_new_line);
    ~log_stream();
    log_stream(const log_stream&) = delete;
    log_stream& operator=(const log_stream&) = delete;

    // Calls `send` for each further line of the answer. Stops when `may_send` returns false, or when there are no more
    // lines. Calls `may_send` before every 256 lines of the log. Returns false when the answer is complete.
    bool pump(const std::function<bool()>& may_send, const std::function<void(const nlohmann::json&)>& send);

  private:
    kernel::log& log_;
    const int level_;
    uint64_t next_ = 0;           // the number of the next line
    std::optional<int> follower_; // the handle of the subscription to new lines
};

} // namespace cli
