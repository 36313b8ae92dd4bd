// Listens on the service's socket. If the socket's file is removed, it is created again within a second, so new clients
// can connect. Lives in the event loop's thread, except where stated.
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
    // Called when a client waits at `listener`.
    using accept_call = std::function<void(uv_stream_t* listener)>;

    // Receives one line when the file was created again, or when this failed.
    using report_call = std::function<void(const std::string& line)>;

    client_listener(std::unique_ptr<listening_socket> socket, report_call report)
        : socket_(std::move(socket)), report_(std::move(report))
    {
    }

    // Returns 0, or an error of libuv.
    int start(uv_loop_t* loop, accept_call accept);

    // Accepts no more clients. The object must exist until the loop has ended.
    void close();

    // Lets other users connect, or only this one and root. Any thread.
    ats::result<> set_for_all(bool is_for_all) { return socket_->set_for_all(is_for_all); }

  private:
    int listen();
    void look_at_file();

    const std::unique_ptr<listening_socket> socket_;
    const report_call report_;
    accept_call accept_;
    uv_loop_t* loop_ = nullptr;
    uv_pipe_t* listener_ = nullptr; // freed after libuv has closed it
    uv_timer_t look_;
    bool is_loss_reported_ = false;
};

} // namespace cli
