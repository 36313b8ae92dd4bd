// Listens on the service's socket. Accepts a limited number of clients in each round of the loop, so that a flood of
// connections does not stop the service. Checks once a second if the socket's file still exists. If somebody has
// removed it, creates it again, so that new clients can connect. All calls are made in the event loop's thread, except
// those marked "any thread".
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "cli/server/libuv.h"
#include "cli/socket/socket.h"

namespace cli
{

class client_listener
{
  public:
    // The listener calls this function when a client waits at `listener`. The function must accept the client.
    using accept_call = std::function<void(uv_stream_t* listener)>;

    // The listener calls this function with one line for the administrator: the listener has created the file again, or
    // new clients do not find the service.
    using report_call = std::function<void(const std::string& line)>;

    client_listener(std::unique_ptr<listening_socket> socket, report_call report)
        : socket_(std::move(socket)), report_(std::move(report))
    {
    }

    // Starts to listen. Returns 0, or an error number of libuv.
    int start(uv_loop_t* loop, accept_call accept);

    // Stops listening. The object must exist until the loop has ended.
    void close();

    // If `is_for_all`, lets other users connect; otherwise, only this user and root can connect. Any thread.
    ats::result<> set_for_all(bool is_for_all) { return socket_->set_for_all(is_for_all); }

  private:
    int listen();
    void take_client();
    void begin_round();
    void check_file();

    const std::unique_ptr<listening_socket> socket_;
    const report_call report_;
    accept_call accept_;
    uv_loop_t* loop_ = nullptr;
    uv_pipe_t* listener_ = nullptr; // owned; freed when libuv has closed it
    uv_timer_t check_timer_;
    uv_timer_t round_timer_;          // calls begin_round()
    size_t round_clients_ = 0;        // number of clients accepted in this round
    bool is_client_deferred_ = false; // libuv keeps a client for the next round
    bool must_listen_ = false;        // the service has made the file again, but does not listen on it yet
    bool is_loss_reported_ = false;   // report_ was told that new clients do not find the service
};

} // namespace cli
