// Finds the paths for which programs ask the door (cli/acm/door.h). It uses the lookups of the server. Therefore the
// limits of the client socket, and the turns that its users take, also apply to these programs. Make all calls in the
// thread of the server's loop; the constructor and the destructor run in another thread.
#pragma once

#include <functional>
#include <memory>

#include "cli/acm/messages.h"
#include "cli/server/server.h"

namespace acm
{

struct found_route {
    acm::route route = {};
    bool is_by_address = false; // true if the destination was an address or a name: its GID was looked up first
    bool is_cached = false;     // true if the answer came from the caches, without the SA
};

class route_finder
{
  public:
    using completion = std::function<void(const found_route&)>;

    route_finder(cli::server& server, cli::running_hosts& hosts) : server_(server), hosts_(hosts) {}

    // Starts no more lookups. Waits for the loop's thread. `server` must still exist, and may then be destroyed: the
    // address of a name that a worker finds later is ignored.
    ~route_finder();
    route_finder(const route_finder&) = delete;
    route_finder& operator=(const route_finder&) = delete;

    // Looks for a path and calls `callback` with the result: before it returns, or later in any thread. `place` is the
    // user and the connection that ask. forget(place) drops the question as long as it is in a queue; `callback` is
    // then not called.
    void find(const resolve_request& request, const cli::queue_place& place, const completion& callback);

    // Drops the questions of a connection that are still in a queue.
    void forget(const cli::queue_place& place);

    // Returns the port of an endpoint. The endpoints are the HCAs of all hosts, counted from 1. Returns nothing if
    // there is no such port.
    std::optional<acm::endpoint> endpoint(const endpoint_port& subject) const;

    // Returns a number for a new connection of the door. It differs from the numbers of all connections of the server.
    uint64_t new_number() { return server_.new_connection_number(); }

  private:
    struct question {
        world::host* host = nullptr;
        resolve_request request;
        cli::queue_place place;
        completion callback;
    };

    world::host* host_of(const path_end& source) const;
    void find_by_name(const question& question, const std::string& name);
    void find_path(const question& question, const world::path_destination& destination);

    cli::server& server_;
    cli::running_hosts& hosts_;
    // A worker can find a name's address after this object is gone. Its work then has an expired pointer to life_.
    // Only the loop's thread resets life_ or looks at a pointer to it.
    std::shared_ptr<bool> life_ = std::make_shared<bool>();
};

} // namespace acm
