// Serves the clients of the running hosts over the Unix socket. Each client has a thread.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "cli/service/running-hosts.h"
#include "cli/socket/socket.h"

namespace cli
{

class server
{
  public:
    // Serves from now on. `hosts` outlive the server. Fails if the process has no descriptors or threads left.
    static ats::result<std::unique_ptr<server>> start(running_hosts& hosts, std::unique_ptr<listening_socket> socket);

    // Accepts no new clients, ends the conversations after their current request, and waits for them.
    ~server();
    server(const server&) = delete;
    server& operator=(const server&) = delete;

  private:
    struct conversation {
        explicit conversation(descriptor socket) : channel(std::move(socket)) {}
        line_channel channel;
        std::atomic<bool> is_over{false};
        std::thread thread;
    };

    server(running_hosts& hosts, std::unique_ptr<listening_socket> socket, descriptor stop_reader,
           descriptor stop_writer);
    void accept_clients();
    void converse(conversation& conversation);
    void remove_ended();

    running_hosts& hosts_;
    const std::unique_ptr<listening_socket> socket_;
    const descriptor stop_reader_; // of a pipe: readable once its other end is closed
    descriptor stop_writer_;
    std::mutex mutex_; // guards conversations_
    std::list<conversation> conversations_;
    std::thread acceptor_;
};

} // namespace cli
