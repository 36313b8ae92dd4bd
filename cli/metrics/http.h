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
    ~http(); // stops serving; waits for an answer in progress
    http(const http&) = delete;
    http& operator=(const http&) = delete;

    // Answers `GET /metrics` on `address`, for example "127.0.0.1:9783", in a thread of its own. `text` creates the
    // answer. Fails if the port is in use or not allowed, or if this build lacks the library.
    ats::result<> open(const std::string& address, std::function<std::string()> text);

    bool is_open() const { return state_ != nullptr; }

  private:
    struct state;
    std::unique_ptr<state> state_;
};

// Returns false if this program was built without the HTTP library.
bool can_serve_http();

} // namespace metrics
