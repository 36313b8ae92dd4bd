#include "cli/acm/door.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <limits>
#include <sys/socket.h>
#include <sys/un.h>

#include "cli/acm/store-names.h"
#include "cli/service/access.h"

namespace acm
{

namespace
{

// If a user has more connections than the limit, the door refuses the requests for paths on the further connections. If
// the user has more than this factor times the limit, the door closes the further connections.
constexpr size_t refusal_factor = 4;

// The door accepts at most this number of programs in a round of the loop. Otherwise, programs that connect as fast as
// the door accepts them would keep the loop from all other work.
constexpr size_t most_programs_of_round = 64;

template <class handle_t>
uv_handle_t* handle(handle_t& specific)
{
    return reinterpret_cast<uv_handle_t*>(&specific);
}

// Returns the path to which a Unix socket is bound, or "".
std::string path_of(int socket)
{
    sockaddr_un address{};
    socklen_t size = sizeof address;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return "";
    return address.sun_path;
}

} // namespace

door::door(cli::event_loop& loop, route_finder& routes, const cli::acm_config& config,
           const cli::service_limits& limits, cli::door_statistics& statistics,
           std::vector<cli::kept_descriptor> descriptors)
    : loop_(loop), routes_(routes), statistics_(statistics), config_(config), limits_(limits)
{
    auto connections = std::make_shared<std::vector<cli::kept_descriptor>>();
    for (cli::kept_descriptor& descriptor : descriptors) {
        if (descriptor.name == listener_name)
            earlier_listener_ = std::move(descriptor.file);
        else if (is_connection_name(descriptor.name))
            connections->push_back(std::move(descriptor));
    }
    loop_.post([this, connections] {
        last_store_number_ = last_number_in(*connections);
        for (cli::kept_descriptor& descriptor : *connections)
            admit(std::move(descriptor.file), std::move(descriptor.name));
    });
}

door::~door()
{
    loop_.post([this] { close_all(); });
    close_promise_.get_future().wait();
}

// ---- connections ----

ats::result<> door::listen()
{
    using cli::listening_socket;
    const bool has_earlier_listener = earlier_listener_.is_open();
    ats::result<std::unique_ptr<listening_socket>> socket_result;
    if (has_earlier_listener) socket_result = listening_socket::adopt(config_.socket, std::move(earlier_listener_));
    const bool is_adopted = socket_result && *socket_result;
    if (has_earlier_listener && !is_adopted) cli::forget_descriptor(listener_name);
    if (!is_adopted) socket_result = listening_socket::open(config_.socket, true, "--acm-socket");
    if (!socket_result) return ats::pass_on(socket_result);
    listening_socket_ = std::move(*socket_result);
    if (!is_adopted) cli::keep_descriptor(listener_name, listening_socket_->duplicate().get());
    loop_.post([this] { start_accepting(); });
    return {};
}

void door::remove_earlier_socket()
{
    if (!earlier_listener_.is_open()) return;
    cli::forget_descriptor(listener_name);
    const int copy = fcntl(earlier_listener_.get(), F_DUPFD_CLOEXEC, 0);
    const auto listener = std::make_shared<client::descriptor>(copy);
    {
        // The destructor removes the file, so no further program can connect. Those that have connected are still
        // served.
        const auto socket = cli::listening_socket::adopt(path_of(copy), std::move(earlier_listener_));
    }
    loop_.post([this, listener] {
        const auto next_program = [&] {
            return accept4(listener->get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        };
        for (client::descriptor socket(next_program()); socket.is_open(); socket = client::descriptor(next_program()))
            admit(std::move(socket), "");
    });
}

void door::set_limits(const cli::service_limits& limits)
{
    loop_.post([this, limits] {
        limits_ = limits;
        for (auto& [number, program] : open_connections_)
            if (program.rank <= limits.connections) program.is_beyond_limit = false;
    });
}

void door::start_accepting()
{
    accept_descriptor_ = listening_socket_->duplicate();
    uv_poll_init(loop_.uv(), &listener_, accept_descriptor_.get()); // also makes the descriptor non-blocking
    uv_timer_init(loop_.uv(), &pause_);
    open_handles_ = 2;
    listener_.data = this;
    pause_.data = this;
    watch_listener();
}

void door::watch_listener()
{
    uv_poll_start(&listener_, UV_READABLE, [](uv_poll_t* listener, int, int) {
        static_cast<door*>(listener->data)->accept(most_programs_of_round);
    });
}

// Accepts programs that wait at the listening socket, at most `limit`. If others still wait, poll() reports the socket
// again in the next round.
void door::accept(size_t limit)
{
    for (size_t i = 0; i < limit; ++i) {
        client::descriptor socket(accept4(accept_descriptor_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket.is_open())
            admit(std::move(socket), "");
        else if (errno == EAGAIN)
            return;
        else if (errno != EINTR && errno != ECONNABORTED)
            return pause_accepting();
    }
}

// Stops accepting for a short time after a failure of accept(), for example if no descriptor is left. The programs wait
// meanwhile.
void door::pause_accepting()
{
    constexpr uint64_t pause_ms = 100;
    uv_poll_stop(&listener_);
    const auto resume = [](uv_timer_t* timer) { static_cast<door*>(timer->data)->watch_listener(); };
    uv_timer_start(&pause_, resume, pause_ms, 0);
}

// Starts to serve a connection, or closes it if the user has far too many. If `store_name` is "", first gives a copy of
// a connection that it serves to the service manager.
void door::admit(client::descriptor socket, std::string store_name)
{
    const std::optional<cli::peer> peer = cli::peer_of(socket.get());
    if (!peer) {
        if (!store_name.empty()) cli::forget_descriptor(store_name);
        return;
    }
    const size_t connections = ++connection_counts_[peer->user];
    const bool is_served = connections <= refusal_factor * limits_.connections;
    if (is_served && store_name.empty()) {
        store_name = connection_name(++last_store_number_);
        if (!cli::keep_descriptor(store_name, socket.get())) store_name.clear();
    }
    const uint64_t number = routes_.new_number();
    open_connection& program = open_connections_[number];
    program.store_name = std::move(store_name);
    program.user = peer->user;
    program.rank = connections;
    program.is_beyond_limit = program.rank > limits_.connections;
    cli::count(statistics_.accepted);
    if (program.is_beyond_limit) cli::count(statistics_.connections_reached);
    ++statistics_.open;
    program.connection = std::make_unique<acm::connection>(*this, loop_.uv(), number, std::move(socket),
                                                           std::chrono::milliseconds(config_.timeout_ms));
    if (!is_served) program.connection->cut_off();
}

void door::connection_ended(connection& source)
{
    const auto entry = open_connections_.find(source.number());
    const open_connection& program = entry->second;
    routes_.forget({program.user, source.number()});
    if (!is_closing_ && !program.store_name.empty()) cli::forget_descriptor(program.store_name);
    --statistics_.open;
    const uid_t user = program.user;
    if (--connection_counts_[user] == 0) connection_counts_.erase(user);
    move_up(open_connections_.erase(entry), user);
    finish_close();
}

// Lowers the ranks of a user's connections from `first` on, because an earlier one has ended. The door from now on
// serves connections that come within the limit.
void door::move_up(connection_map::iterator first, uid_t user)
{
    for (auto entry = first; entry != open_connections_.end(); ++entry) {
        open_connection& program = entry->second;
        if (program.user == user && --program.rank <= limits_.connections) program.is_beyond_limit = false;
    }
}

// Closes the handles and this process's descriptors. Connections of which the service manager has a copy stay open.
// Therefore first accepts the programs that still wait: the service manager then gets copies of their connections, too.
void door::close_all()
{
    life_.reset();
    if (open_handles_ > 0) {
        listening_socket_.reset(); // removes the file; no other program can connect
        accept(std::numeric_limits<size_t>::max());
        cli::forget_descriptor(listener_name);
        const auto count_close = [](uv_handle_t* handle) {
            auto* self = static_cast<door*>(handle->data);
            --self->open_handles_;
            self->finish_close();
        };
        uv_close(handle(listener_), count_close);
        uv_close(handle(pause_), count_close);
    }
    is_closing_ = true;
    for (auto& [number, program] : open_connections_) program.connection->close();
    finish_close();
}

// Ends the wait of the destructor when the last handle is closed.
void door::finish_close()
{
    if (is_closing_ && open_connections_.empty() && open_handles_ == 0) close_promise_.set_value();
}

// ---- requests ----

void door::take_request(connection& source, message_view request)
{
    if (opcode_of(request) == opcode_resolve) return resolve(source, request);
    if (opcode_of(request) == opcode_counters) {
        const unsigned endpoint = endpoint_of_counters(request);
        const bool is_known = endpoint == 0 || routes_.endpoint({endpoint, 1}).has_value();
        return source.answer(is_known ? counters_answer(request, counters_) : refusal(request, status::invalid));
    }
    const std::optional<endpoint> endpoint = routes_.endpoint(endpoint_of_query(request));
    source.answer(endpoint ? endpoint_answer(request, *endpoint) : refusal(request, status::invalid));
}

// Looks for the path, and answers the request when the result is known. `callback` may be called in another thread,
// also after the connection or the door has gone; see take_route() and life_.
void door::resolve(connection& source, message_view request)
{
    const read_request parse_result = read_resolve(request);
    const open_connection& program = open_connections_.at(source.number());
    const status refusal_status = program.is_beyond_limit ? status::no_memory : parse_result.status;
    const uint64_t number = source.number();
    const uint64_t request_number = source.request_number();
    if (refusal_status != status::success)
        return take_route(number, request_number, {request.begin(), request.end()},
                          {.route = {.status = refusal_status}});
    const auto callback = [this, life = std::weak_ptr(life_), loop = &loop_, loop_thread = std::this_thread::get_id(),
                           number, request_number,
                           request = message(request.begin(), request.end())](const found_route& answer) {
        if (std::this_thread::get_id() == loop_thread) return take_route(number, request_number, request, answer);
        loop->post([=, this] {
            if (!life.expired()) take_route(number, request_number, request, answer);
        });
    };
    routes_.find(parse_result.request, {program.user, number}, callback);
}

// Sends the answer to a resolve request. Does nothing if the connection is gone or the request was already answered.
void door::take_route(uint64_t number, uint64_t request_number, const message& request, const found_route& answer)
{
    const auto entry = open_connections_.find(number);
    if (entry == open_connections_.end() || entry->second.connection->request_number() != request_number) return;
    const status status = answer.route.status;
    ++counters_[resolutions];
    if (status == status::no_data) ++counters_[absences];
    if (status != status::success && status != status::no_data) ++counters_[errors];
    if (answer.is_by_address) ++counters_[answer.is_cached ? address_hits : address_queries];
    if (status == status::success) ++counters_[answer.is_cached ? path_hits : path_queries];
    entry->second.connection->answer(resolve_answer(request, answer.route));
}

void door::request_timed_out(connection& source, message_view request)
{
    routes_.forget({open_connections_.at(source.number()).user, source.number()});
    take_route(source.number(), source.request_number(), {request.begin(), request.end()},
               {.route = {.status = status::timed_out}});
}

} // namespace acm
