// Serves clients through the Unix socket of the service. docs/protocol.md describes the protocol. The thread of the
// event loop (the loop's thread) receives all requests and sends all answers. It passes a lookup of one address, GID or
// path to the lookups of the host, which ask the SA if no cache has the answer. It passes all other slow requests to
// the workers.
#pragma once

#include <map>
#include <memory>

#include "cli/server/client-listener.h"
#include "cli/server/conversation.h"
#include "cli/server/event-loop.h"
#include "cli/server/log-followers.h"
#include "cli/server/lookups.h"
#include "cli/server/request-types.h"
#include "cli/server/request.h"
#include "cli/server/workers.h"
#include "cli/service/running-hosts.h"
#include "cli/socket/socket.h"

namespace cli
{

struct server_options {
    access_rules access;
    service_limits limits;
    // The loop's thread calls `report` with a line for the administrator. set_options() does not change `report`.
    std::function<void(const std::string&)> report = [](const std::string&) {};
};

class server final : public conversation::owner
{
  public:
    // Creates a server that serves clients from now on. `hosts` must outlive the server. Fails if libuv cannot listen
    // on the socket. Throws exec::shortage if no descriptors or threads are left.
    static ats::result<std::unique_ptr<server>> start(running_hosts& hosts, std::unique_ptr<listening_socket> socket,
                                                      const server_options& options);

    // Accepts no more clients and requests. Waits for the requests that are being executed, sends as much of their
    // answers as the sockets take at once, and ends all conversations. Requests that are still in a queue get no
    // answer.
    ~server() override;

    // Sets new access rules and limits for all further requests. If a client is reading a log that it may not read
    // under the new rules, the answer ends. A connection beyond a lower limit stays open. Fails if the permissions of
    // the socket cannot be changed; the other settings are changed nevertheless. Any thread.
    ats::result<> set_options(const server_options& options);

    // The calls from loop() to drop() are for the door that serves librdmacm programs (cli/acm/door.h) and for the
    // watchdog. Destroy the door and the watchdog before the server. loop(), background() and all_lookups() may be
    // called in any thread; new_connection_number(), lookups_of() and drop() only in the loop's thread.
    event_loop& loop() { return loop_; }
    workers& background() { return workers_; }
    host_lookups& all_lookups() { return lookups_; }
    uint64_t new_connection_number() { return ++last_number_; }
    lookups& lookups_of(kernel::machine& machine);

    // Removes the requests of a connection from all queues. Requests that have left their queue are still executed.
    void drop(const queue_place& place);

  private:
    server(running_hosts& hosts, std::unique_ptr<listening_socket> socket, const server_options& options);
    ats::result<> listen();

    // The counts for the limits of a user.
    struct user_share {
        size_t connections = 0;
        size_t open_requests = 0; // requests without an answer
        size_t open_bytes = 0;    // estimated memory of these requests
    };
    void take_line(conversation& source, std::string_view line) override;
    void line_too_long(conversation& source) override;
    void input_ended(conversation& source) override;
    void became_writable(conversation& source) override;
    void client_does_not_read(conversation&) override { cli::count(hosts_.statistics().clients.unread_bytes_reached); }
    void conversation_ended(conversation& source) override;
    void needs_flush(conversation& source) override { conversations_to_flush_.push_back(source.number()); }

    void accept_client(uv_stream_t* listener);
    void admit(conversation& client);
    void flush_all();
    void carry_out(conversation& source, const request& request);
    std::optional<ats::error> excess_of(uid_t user) const;
    void greet(conversation& source, const request& request);
    void look_up(conversation& source, const request& request);
    void follow_log(conversation& source, const request& request);
    std::string answer_line(const request& request, const request_type& type, lookups::time_point deadline);
    std::string late_line(const request& request);
    void hand_to_workers(conversation& source, const request& request, const request_type& type);
    void count(conversation& source, const return_ticket& ticket);
    void begin(conversation& source, const return_ticket& ticket);
    void finish(const return_ticket& ticket, const std::string& line);
    void finish_soon(const return_ticket& ticket, std::string line);
    void refuse(conversation& source, const std::optional<uint64_t>& id, const ats::error& error);
    conversation* find(uint64_t number);

    running_hosts& hosts_;
    event_loop loop_;
    client_listener listener_;

    // Only the loop's thread uses the next members, except lookups_ and workers_.
    server_options options_;
    bool is_stopping_ = false;                                        // the destructor has paused all conversations
    uint64_t last_number_ = 0;                                        // the number of the newest connection
    std::map<uint64_t, std::unique_ptr<conversation>> conversations_; // by number
    std::map<uid_t, user_share> users_;
    std::vector<uint64_t> conversations_to_flush_; // numbers of the conversations that have called needs_flush()
    log_followers followers_;
    host_lookups lookups_;
    workers workers_;
};

} // namespace cli
