// Serves the clients of the running hosts over the Unix socket: a thread for each.
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
    // Starts serving at once. `at` outlives the server.
    server(running_hosts& hosts, std::unique_ptr<listening_socket> listening);

    // Takes no new clients, ends the conversations in progress after their current request, and waits for them.
    ~server();

  private:
    struct conversation {
        explicit conversation(descriptor connected) : channel(std::move(connected)) {}
        line_channel channel;
        std::atomic<bool> over{false};
        std::thread thread;
    };

    void accept_clients();
    void converse(conversation& with);
    void reap();

    running_hosts& hosts_;
    std::unique_ptr<listening_socket> listening_;
    descriptor stop_read_;
    descriptor stop_write_;
    std::mutex mutex_; // guards conversations_
    std::list<conversation> conversations_;
    std::thread acceptor_;
};

} // namespace cli
