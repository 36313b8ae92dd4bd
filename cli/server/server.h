// Serves the clients of running hosts over the Unix socket. One thread receives and sends; a few others execute slow
// requests. docs/protocol.md describes the protocol for clients.
#pragma once

#include <map>
#include <memory>

#include "cli/server/client-listener.h"
#include "cli/server/conversation.h"
#include "cli/server/event-loop.h"
#include "cli/server/log-followers.h"
#include "cli/server/lookups.h"
#include "cli/server/request.h"
#include "cli/server/workers.h"
#include "cli/service/running-hosts.h"
#include "cli/socket/socket.h"

namespace cli
{

struct server_options {
    access_rules access;
    service_limits limits;
    // Receives lines for the administrator, in the loop's thread. A reload does not change it.
    std::function<void(const std::string&)> report = [](const std::string&) {};
};

class server final : public conversation::owner
{
  public:
    // Starts serving at once. `hosts` must outlive the server. Fails if descriptors or threads are exhausted.
    static ats::result<std::unique_ptr<server>> start(running_hosts& hosts, std::unique_ptr<listening_socket> socket,
                                                      const server_options& options);

    // Takes no new clients. Ends all conversations after the requests in progress.
    ~server() override;

    // Sets new rules and limits for requests from now on, and for logs that are already followed. A connection above a
    // lower limit stays. Fails if the socket's permissions could not be changed; all other settings have changed then.
    // Any thread.
    ats::result<> set_options(const server_options& options);

    // For another door to the same hosts; the door is destroyed first. Except for loop(), background() and
    // all_lookups(), only the loop's thread may call these.
    event_loop& loop() { return loop_; }
    uint64_t new_connection_number() { return ++last_number_; }
    lookups& lookups_of(kernel::machine& machine);
    workers& background() { return workers_; }
    host_lookups& all_lookups() { return lookups_; }
    void drop(const queue_place& place); // drops the queued questions of a connection; others may still be answered

  private:
    server(running_hosts& hosts, std::unique_ptr<listening_socket> socket, const server_options& options);
    ats::result<> listen();

    struct user_share {
        size_t connections = 0;
        size_t open_requests = 0;
    };
    void take_line(conversation& source, std::string_view line) override;
    void line_too_long(conversation& source) override;
    void input_ended(conversation& source) override;
    void became_writable(conversation& source) override;
    void left_unread(conversation&) override { cli::count(hosts_.statistics().clients.unread_bytes_reached); }
    void ended(conversation& source) override;
    void has_unsent(conversation& source) override { conversations_to_flush_.push_back(source.number()); }

    void accept_client(uv_stream_t* listener);
    void admit(conversation& client);
    void flush_all();
    void carry_out(conversation& source, const request& request);
    void greet(conversation& source, const request& request);
    void look_up(conversation& source, const request& request);
    void follow_log(conversation& source, const request& request);
    std::string answer_line(const request& request);
    void hand_to_workers(conversation& source, const request& request);
    void count(conversation& source, const return_ticket& ticket);
    void begin(conversation& source, const return_ticket& ticket);
    void finish(const return_ticket& ticket, const std::string& line);
    void finish_soon(const return_ticket& ticket, std::string line);
    void refuse(conversation& source, const std::optional<uint64_t>& id, const ats::error& error);
    conversation* find(uint64_t number);

    running_hosts& hosts_;
    event_loop loop_;
    client_listener listener_;

    // The next members are for the loop's thread only.
    server_options options_;
    bool is_stopping_ = false; // no more requests are taken
    uint64_t last_number_ = 0;
    std::map<uint64_t, std::unique_ptr<conversation>> conversations_;
    std::map<uid_t, user_share> users_;
    std::vector<uint64_t> conversations_to_flush_;
    log_followers followers_;
    host_lookups lookups_;
    workers workers_;
};

} // namespace cli
