// Serves metrics over HTTP, with libmicrohttpd.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/result.h"

namespace metrics
{

class http
{
  public:
    http();
    ~http(); // serves no more; waits for an answer that is being made
    http(const http&) = delete;
    http& operator=(const http&) = delete;

    // Answers `GET /metrics` on `address`, as in "127.0.0.1:9783", in a thread of its own. `text` makes the answer.
    // Error: the port is taken or not allowed, or this build lacks the library.
    ats::result<> open(const std::string& address, std::function<std::string()> text);

    bool is_open() const { return state_ != nullptr; }

  private:
    struct state;
    std::unique_ptr<state> state_;
};

// False: this program was built without the library for HTTP.
bool can_serve_http();

} // namespace metrics
