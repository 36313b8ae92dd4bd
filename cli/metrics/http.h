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
    ~http(); // stops serving; waits for a running call of `text`
    http(const http&) = delete;
    http& operator=(const http&) = delete;

    // Starts a thread that answers `GET /metrics` on `address`, for example "127.0.0.1:9783". The thread calls `text`
    // for each answer. Fails if the address is wrong, if another program uses the port, if this user may not use the
    // port, or if this build lacks libmicrohttpd.
    ats::result<> open(const std::string& address, std::function<std::string()> text);

    bool is_open() const { return state_ != nullptr; }

  private:
    struct state;
    std::unique_ptr<state> state_;
};

// Returns true if this program was built with libmicrohttpd.
bool can_serve_http();

} // namespace metrics
