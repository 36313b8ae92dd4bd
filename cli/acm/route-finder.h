// Finds the paths that programs ask the door for, with the lookups of the service. It serves every connection of the
// door. All calls are made in the thread of the server's loop.
#pragma once

#include <functional>

#include "cli/acm/messages.h"
#include "cli/server/server.h"

namespace acm
{

struct found_route {
    acm::route route = {};
    bool is_by_address = false; // the GID of an address was looked up first
    bool is_cached = false;     // the SA was not asked
};

class route_finder
{
  public:
    using completion = std::function<void(const found_route&)>;

    route_finder(cli::server& server, cli::running_hosts& hosts) : server_(server), hosts_(hosts) {}

    // Calls `done` at once, or later in another thread. After forget(place), only a question that was already sent to
    // the SA still calls it.
    void find(const resolve_request& request, const cli::queue_place& place, const completion& done);

    // Drops the queued questions of the connection.
    void forget(const cli::queue_place& place);

    // Endpoints are the HCAs of the hosts, in order. Returns nothing if there is no such port.
    std::optional<acm::endpoint> endpoint(const endpoint_port& subject) const;

    // Returns a number for a connection; the server's own connections never have it.
    uint64_t new_number() { return server_.new_connection_number(); }

  private:
    struct question {
        world::host* host = nullptr;
        resolve_request request;
        cli::queue_place place;
        completion done;
    };

    world::host* host_of(const place& source) const;
    void find_by_name(const question& question, const std::string& name);
    void find_path(const question& question, const world::path_destination& destination);

    cli::server& server_;
    cli::running_hosts& hosts_;
};

} // namespace acm
