// Answers programs that use librdmacm. librdmacm asks a daemon (ibacm) for paths; this door listens on the daemon's
// socket in its place. (A door is a part of the service that serves programs through one socket and one protocol.)
//
// A program waits for its answer without a time limit, and holds a lock of librdmacm meanwhile. If its connection
// breaks, SIGPIPE ends the program. Therefore the door answers every request within a limited time, and the service
// manager keeps the connections open during a restart of the service.
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
    // Serves the connections of an earlier process in the thread of `loop`. They are among `descriptors`, which the
    // service manager has kept. `loop`, `routes` and `statistics` must outlive this object.
    door(cli::event_loop& loop, route_finder& routes, const cli::acm_config& config, const cli::service_limits& limits,
         cli::door_statistics& statistics, std::vector<cli::kept_descriptor> descriptors);

    // Listens on the configured socket, and then also serves new connections. Call it once. Fails if another daemon
    // listens there, or if the socket cannot be created.
    ats::result<> listen();

    // For a configuration that does not serve new programs: removes the socket that an earlier process has left, and
    // its copy at the service manager. Call it once, instead of listen().
    void remove_earlier_socket();

    // Sets new limits. If the limit for connections is higher, the door from now on serves connections that were beyond
    // the earlier limit. Any thread.
    void set_limits(const cli::service_limits& limits);

    // Answers no more requests. Unanswered requests stay in their sockets for the next process. Waits until the loop's
    // thread has closed all handles.
    ~door() override;

  private:
    struct open_connection {
        std::unique_ptr<acm::connection> connection;
        std::string store_name; // the name of the copy at the service manager; "" if there is no copy
        uid_t user = 0;
        size_t rank = 0; // its position among the open connections of its user, the oldest one is 1
        // If true, its requests for paths are refused. The connection stays open, because closing it would end the
        // program. Only a connection whose rank is far above the limit is closed (admit()).
        bool is_beyond_limit = false;
    };
    using connection_map = std::map<uint64_t, open_connection>; // by number; later connections have higher numbers

    void start_accepting();
    void watch_listener();
    void accept(size_t limit);
    void pause_accepting();
    void admit(client::descriptor socket, std::string store_name);
    void take_request(connection& source, message_view request) override;
    void request_timed_out(connection& source, message_view request) override;
    void connection_ended(connection& source) override;
    void move_up(connection_map::iterator first, uid_t user);
    void resolve(connection& source, message_view request);
    void take_route(uint64_t number, uint64_t request_number, const message& request, const found_route& answer);
    void close_all();
    void finish_close();

    cli::event_loop& loop_;
    route_finder& routes_;
    cli::door_statistics& statistics_;
    const cli::acm_config config_;
    client::descriptor earlier_listener_; // the listening socket of an earlier process, until listen() or
                                          // remove_earlier_socket()
    std::unique_ptr<cli::listening_socket> listening_socket_;

    // Only the loop's thread uses the next members. The destructor waits for close_promise_.
    cli::service_limits limits_;
    client::descriptor accept_descriptor_;
    uv_poll_t listener_;
    uv_timer_t pause_;
    size_t open_handles_ = 0; // of `listener_` and `pause_`
    connection_map open_connections_;
    std::map<uid_t, size_t> connection_counts_; // number of connections by user
    counters counters_{};
    uint64_t last_store_number_ = 0;
    bool is_closing_ = false;
    std::promise<void> close_promise_;
    // An answer can come after the door has closed. Its callback has a weak pointer to the object of life_, and does
    // nothing if that object is gone.
    std::shared_ptr<bool> life_ = std::make_shared<bool>();
};

} // namespace acm
