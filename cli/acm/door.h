// Answers programs that use librdmacm, instead of the daemon that librdmacm asks for paths. Such a program waits for
// its answer without a time limit, and holds a lock of librdmacm meanwhile. If its connection breaks, SIGPIPE ends the
// program. Therefore every request is answered within a limited time. During a restart of the service, the service
// manager keeps the connections.
#pragma once

#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cli/acm/connection.h"
#include "cli/acm/route-finder.h"
#include "cli/server/event-loop.h"
#include "cli/service/descriptor-store.h"
#include "cli/service/limits.h"
#include "cli/service/statistics.h"
#include "cli/service/world-config.h"
#include "cli/socket/socket.h"

namespace acm
{

class door final : public connection::owner
{
  public:
    // Serves the connections among `kept`, the descriptors of an earlier process, in the thread of `loop`. `loop`,
    // `routes` and `statistics` must outlive this object.
    door(cli::event_loop& loop, route_finder& routes, const cli::acm_config& config, const cli::service_limits& limits,
         cli::door_statistics& statistics, std::vector<cli::kept_descriptor> kept);

    // Also serves new connections. Call it once. Fails if another daemon serves on the socket, or if the socket cannot
    // be created.
    ats::result<> listen();

    // Sets new limits for connections from now on. Refused connections within a higher limit are admitted. Any thread.
    void set_limits(const cli::service_limits& limits);

    // Takes no more requests. Unanswered requests stay in their sockets for the next process.
    ~door() override;

  private:
    struct guest {
        std::unique_ptr<acm::connection> connection;
        std::string store_name; // "" if the service manager has no copy
        uid_t user = 0;
        size_t rank = 0;              // position among the connections of its user at the time of accept()
        bool is_beyond_limit = false; // its requests are refused; closing it would end the program
    };

    void start_accepting();
    void accept_all();
    void pause_accepting();
    void admit(client::descriptor socket, std::string store_name);
    void take_request(connection& source, message_view request) override;
    void request_timed_out(connection& source, message_view request) override;
    void ended(connection& source) override;
    void resolve(connection& source, message_view request);
    void take_route(uint64_t number, uint64_t request_number, const message& request, const found_route& found);
    void close_all();
    void note_closed();

    cli::event_loop& loop_;
    route_finder& routes_;
    cli::door_statistics& statistics_;
    const cli::acm_config config_;
    client::descriptor kept_listener_;
    std::unique_ptr<cli::listening_socket> listening_socket_;

    // The next members are for the loop's thread only.
    cli::service_limits limits_;
    client::descriptor accept_descriptor_;
    uv_poll_t listener_;
    uv_timer_t pause_;
    size_t open_handles_ = 0;
    std::map<uint64_t, guest> guests_;    // by number
    std::map<uid_t, size_t> connections_; // by user
    counters counters_{};
    uint64_t last_store_number_ = 0;
    bool is_closing_ = false;
    std::promise<void> close_promise_;
    std::shared_ptr<bool> life_ = std::make_shared<bool>(); // ends with the door; late answers check it first
};

} // namespace acm
